/**
 * The guard's view of the device: where things are, and the tool that removes the copy.
 */
#pragma once

#include "device_state.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_guard {

inline constexpr char data_directory[] = "/opt/usr/apps/adagent";
/** Where the daemon records the firmware's version. */
inline constexpr char firmware_file[] = "/opt/media/Documents/adagentversion.txt";
inline constexpr char updatable_library[] = "/opt/usr/lib/libad-agent-fwk.so";

/**
 * Hashes the updatable copy.
 * @param sha256  set to its SHA-256 in hexadecimal, or empty if there is no copy
 * @return false if there is one that cannot be read; it is logged
 */
bool hash_copy(std::string& sha256);

/** Returns the firmware's version as the daemon recorded it, empty if it did not yet. */
std::string recorded_firmware();

/** Returns the ID of this boot, see boot_id in random(4), or nothing if it cannot be read. */
std::string boot_id();

/** Returns the seconds of CLOCK_MONOTONIC: since the boot, not counting suspension. */
std::int64_t monotonic_seconds();

/**
 * Returns the image that the copy came from, with its version; neither if it is not known.
 * @param installed_before  the image that `state` had as installed with the copy before. If it
 * still has, the installation was interrupted before it was recorded, and the copy came from the
 * stored image.
 */
ad_agent::RefusedImage origin_of_copy(const ad_agent::DeviceState& state,
                                      const std::string& installed_before);

/** Has ad-mounter remove the updatable copy. Returns why it is still there, or none. */
std::optional<std::string> remove_copy();

}  // namespace ad_guard
