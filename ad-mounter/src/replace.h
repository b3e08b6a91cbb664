// Puts a downloaded image in the place of the stored one.
#ifndef AD_MOUNTER_REPLACE_H
#define AD_MOUNTER_REPLACE_H

#include "create.h"
#include "messages.h"
#include "table.h"

namespace ad_mounter {

/** Does the --replaceimg row. The download is gone only when the new image lasts. */
Outcome replace_image(const Row& row, const Caller& caller);

}  // namespace ad_mounter

#endif
