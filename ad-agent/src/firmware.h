/**
 * The device's firmware version.
 */
#pragma once

#include <string>

namespace ad_agent {

/**
 * Returns the firmware's version, such as "T-1200.1", as the platform reports it. Empty
 * if the platform does not report one or the host has no platform library.
 */
std::string firmware_version();

}  // namespace ad_agent
