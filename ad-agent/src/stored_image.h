/**
 * The image that was put in place last.
 */
#ifndef AD_AGENT_STORED_IMAGE_H
#define AD_AGENT_STORED_IMAGE_H

#include "data_folder.h"
#include "device_state.h"

#include <string>

namespace ad_agent {

/**
 * Copies the stored image to where downloads are taken from. A copy, which shares
 * its blocks where the file system can, and no link: a rename over another name of
 * the same file does nothing.
 * @return whether it is there, with the reason in error; a bad image is refused
 */
bool copy_stored_image(const std::string& path, const DataFolder& folder, const DeviceState& state,
                       std::string& error);

}  // namespace ad_agent

#endif
