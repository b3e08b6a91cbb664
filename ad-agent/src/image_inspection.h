/**
 * What a downloaded image states about itself, in the trusted comment of its trailer. The
 * signature is not verified here: ad-mounter does that before it stores the image.
 */
#pragma once

#include "data_directory.h"
#include "image_target.h"
#include "result.h"
#include "update_index.h"

#include <optional>
#include <string>

namespace ad_agent {

/**
 * Compares the image `name` with what the index states of it, and with the device.
 * @return why the image must not be offered, or none; an error if it cannot be read
 */
Result<std::optional<std::string>> inspect_image(const DataDirectory& directory,
                                                 const std::string& name, const UpdateIndex& index,
                                                 const DeviceIdentity& device);

}  // namespace ad_agent
