/**
 * The image that was installed last.
 */
#pragma once

#include "data_directory.h"
#include "device_state.h"
#include "result.h"

#include <string>

namespace ad_agent {

/**
 * Copies the stored image to where the host takes downloads from; fails if it is known to
 * be bad. A copy, which shares its blocks where the file system can, since
 * rename(2) does nothing when both names are links to the same file.
 */
Result<> copy_stored_image(const std::string& path, const DataDirectory& directory,
                           const DeviceState& state);

/**
 * Reads the highest version that was ever stored, which the host does not go below; no_version
 * if there is none.
 */
std::string read_floor(const std::string& path);

}  // namespace ad_agent
