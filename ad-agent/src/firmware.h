/**
 * The firmware of the device, as its platform tells it.
 */
#ifndef AD_AGENT_FIRMWARE_H
#define AD_AGENT_FIRMWARE_H

#include <string>

namespace ad_agent {

/**
 * Gives the firmware's version, such as "T-1200.1". Empty when the platform does
 * not tell it, or when the host has no platform.
 */
std::string firmware_version();

}  // namespace ad_agent

#endif
