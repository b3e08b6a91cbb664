/**
 * The manifest inside an image.
 */
#pragma once

#include "outcome.h"
#include "version_text.h"

#include <string_view>

namespace ad_mounter {

/**
 * Finds the text of the first "Version" element directly inside the root element, without
 * surrounding blanks. Returns false when there is none, when it is not a version, or when the
 * manifest holds more than elements, comments and processing instructions before it.
 */
bool version_in_manifest(std::string_view text, char (&version)[version_size]);

/**
 * Compares the version in the manifest of a mounted image, whose top directory is open as
 * `top`, with `version`. Refuses an image without a readable manifest as well. `path` is for
 * error messages.
 */
Outcome check_manifest(int top, const char* path, std::string_view version);

}  // namespace ad_mounter
