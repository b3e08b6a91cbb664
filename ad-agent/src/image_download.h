/**
 * The download of an image, which goes on where an earlier one was cut.
 */
#ifndef AD_AGENT_IMAGE_DOWNLOAD_H
#define AD_AGENT_IMAGE_DOWNLOAD_H

#include "data_folder.h"
#include "settings.h"
#include "update_index.h"

#include <string>

namespace ad_agent {

/** The downloaded image's name in the data folder. */
inline constexpr char IMAGE_NAME[] = "zelADAgent.img";

/** Whether the image that an index names is in the data folder. */
bool is_downloaded(const DataFolder& folder, const UpdateIndex& index);

/**
 * Downloads the image that an index names. Either it is there whole in the end,
 * checked by size and SHA-256, or what was there before and beside it, as a part
 * file, what has arrived so far. A connection that breaks is made anew at once for
 * as long as each brings some bytes and the "image" time-out lasts.
 * @return whether it is there, with the reason in error
 */
bool download_image(const Settings& settings, const DataFolder& folder, const UpdateIndex& index,
                    std::string& error);

/** Removes the downloaded image and what there is of one. */
void remove_download(const DataFolder& folder);

}  // namespace ad_agent

#endif
