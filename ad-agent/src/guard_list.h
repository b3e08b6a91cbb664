/**
 * The images whose library the host's guard gave up, in the key file "guard-bad.ini" of the data
 * directory: one group for each, named by its SHA-256. It is a file of its own, since the guard
 * runs when the library cannot.
 */
#pragma once

#include "data_directory.h"
#include "device_state.h"
#include "result.h"

#include <optional>
#include <string>

namespace ad_agent {

/** Reads the list, the latest last. A missing or damaged file reads as empty. */
RefusedImages read_guard_list(const DataDirectory& directory);

/** Adds an image, or replaces the one with its SHA-256. Durable when it returns. */
Result<> add_to_guard_list(const DataDirectory& directory, const RefusedImage& image);

/** Returns the entry of a bad image, whether this library or the guard found it so, or none. */
std::optional<RefusedImage> find_bad_image(const DataDirectory& directory, const DeviceState& state,
                                           const std::string& sha256);

}  // namespace ad_agent
