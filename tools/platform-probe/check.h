#pragma once

namespace platform_probe {

/**
 * Checks the promises of platform/include, with one printed line each: "ok" or
 * "BROKEN", and the promise. Writes some thousand lines to the log.
 *
 * The main loop does not run meanwhile, since the platform must answer without it.
 *
 * @param is_strict  also pass null pointers, and released and foreign handles,
 *                   which a platform need not survive
 * @return whether every promise was kept
 */
bool check_promises(bool is_strict);

}  // namespace platform_probe
