/**
 * What an image states about itself, in the trusted comment of its trailer. The
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

/** The contents of an image's trailer; nothing of it is verified. */
struct ImageTrailer {
    /** Why it is not accepted; then the rest is empty. */
    std::optional<std::string> rejection;
    std::string version;
    ImageTarget target;
    std::string released;
    /** ID of the key that the image claims to be signed with. */
    std::string key_id;
};

/** Reads the trailer of the image `name`. */
Result<ImageTrailer> read_image_trailer(const DataDirectory& directory, const std::string& name);

/**
 * Compares the image `name` with what the index states of it, and with the device.
 * @return why the image must not be offered, or none; an error if it cannot be read
 */
Result<std::optional<std::string>> inspect_image(const DataDirectory& directory,
                                                 const std::string& name, const UpdateIndex& index,
                                                 const DeviceIdentity& device);

}  // namespace ad_agent
