/**
 * Which product this device is.
 */
#pragma once

#include "base/trusted_comment.h"
#include "outcome.h"

namespace ad_mounter {

/**
 * Refuses an image unless its verified comment names exactly the product of this device: the one
 * in the product file of the firmware, or none where there is no such file. `path` and what
 * follows from a refusal, "image not stored", are for error messages.
 */
Outcome check_product(const base::TrustedComment& comment, const char* path,
                      const char* consequence);

}  // namespace ad_mounter
