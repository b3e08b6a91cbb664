/**
 * The update: which image the host is offered, if any.
 */
#ifndef AD_AGENT_IMAGE_UPDATE_H
#define AD_AGENT_IMAGE_UPDATE_H

#include "data_folder.h"
#include "places.h"

#include <string>

namespace ad_agent {

/**
 * Leaves an image for the host in the data folder: the stored one again when its
 * installation was cut, else a newer one that the server has for this device.
 * @param stored_version  the version that the host reads in the stored image,
 *                        NO_VERSION for none
 * @param message         gets what came of it, or why nothing did
 * @return whether an image lies in the data folder for the host to install
 */
bool offer_image(const Places& places, const DataFolder& folder, const std::string& stored_version,
                 std::string& message);

}  // namespace ad_agent

#endif
