/**
 * The update: a newer image from the content server.
 */
#ifndef AD_AGENT_IMAGE_UPDATE_H
#define AD_AGENT_IMAGE_UPDATE_H

#include "data_folder.h"
#include "settings.h"

#include <string>

namespace ad_agent {

/** The downloaded image's name in the data folder. */
inline constexpr char IMAGE_NAME[] = "zelADAgent.img";

/**
 * Asks the server for its newest image and downloads it when its version is
 * greater than the installed one. Either it is there whole, checked by size and
 * SHA-256, or what was there before.
 * @param message  gets what came of it, or why nothing did
 * @return whether a newer image lies in the data folder
 */
bool download_newer_image(const Settings& settings, const DataFolder& folder,
                          const std::string& installed_version, std::string& message);

}  // namespace ad_agent

#endif
