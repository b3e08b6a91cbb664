/**
 * The update: which image the host is offered, if any.
 */
#pragma once

#include "data_directory.h"
#include "device_paths.h"
#include "result.h"

#include <string>

namespace ad_agent {

/**
 * Leaves an image in the data directory for the host to install: the stored one again
 * if its installation was interrupted, otherwise a newer one that the server has for
 * this device.
 * @param stored_version  the version that the host reads in the stored image, or
 *                        no_version
 * @return what was done, for the log; an error if there is no image to install
 */
Result<std::string> offer_image(const DevicePaths& paths, const DataDirectory& directory,
                                const std::string& stored_version);

}  // namespace ad_agent
