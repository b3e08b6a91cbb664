/**
 * The download of an image, resumed where an earlier one was interrupted.
 */
#pragma once

#include "data_directory.h"
#include "result.h"
#include "settings.h"
#include "update_index.h"

#include <optional>
#include <string>

namespace ad_agent {

/** The downloaded image's name in the data directory. */
inline constexpr char image_name[] = "zelADAgent.img";

/** Whether the index's image is in the data directory, whole and unaltered. */
bool is_downloaded(const DataDirectory& directory, const UpdateIndex& index);

/**
 * Downloads the index's image and verifies its size and SHA-256. On failure the image
 * that was there before stays, and what has arrived stays beside it as a part file. A
 * lost connection is re-established at once, as long as each one yields some bytes and
 * the "image" time-out has not expired.
 * @return why what the server has is not the index's image, or none; an error if it did
 *         not arrive
 */
Result<std::optional<std::string>> download_image(const Settings& settings,
                                                  const DataDirectory& directory,
                                                  const UpdateIndex& index);

/** Removes the downloaded image and any part of one. */
void remove_download(const DataDirectory& directory);

}  // namespace ad_agent
