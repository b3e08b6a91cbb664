// The manifest inside an image.
#ifndef AD_MOUNTER_MANIFEST_H
#define AD_MOUNTER_MANIFEST_H

#include "messages.h"
#include "version_text.h"

#include <cstddef>

namespace ad_mounter {

/**
 * Finds the text of the first element "Version" directly inside the root
 * element, without the blanks around it. False when there is none, when it is
 * empty or too long, or when the manifest is more than elements, comments and
 * processing instructions.
 */
bool version_in_manifest(const char* text, size_t length, char (&version)[version_size]);

/**
 * Compares the version in the manifest in `top`, an image's open top directory,
 * with `version`. An image whose manifest cannot be read is refused as well.
 * `path` is for the failure's line.
 */
Outcome check_manifest(int top, const char* path, const char* version);

}  // namespace ad_mounter

#endif
