// Mounts and unmounts the stored image.
#ifndef AD_MOUNTER_MOUNT_H
#define AD_MOUNTER_MOUNT_H

#include "messages.h"
#include "table.h"

namespace ad_mounter {

/** Does the --mount row. The image that is mounted there already is success. */
Outcome mount_image(const Row& row);

/** Does the --umount row. Nothing mounted there is success. */
Outcome unmount_image(const Row& row);

}  // namespace ad_mounter

#endif
