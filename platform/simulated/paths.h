/**
 * The platform's files on a device.
 */
#pragma once

namespace simulated_platform {

constexpr char state_path[] = "/opt/platform/state.ini";
constexpr char log_path[] = "/opt/platform/platform.log";

}  // namespace simulated_platform
