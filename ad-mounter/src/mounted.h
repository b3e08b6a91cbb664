// What is mounted where.
#ifndef AD_MOUNTER_MOUNTED_H
#define AD_MOUNTER_MOUNTED_H

#include "messages.h"
#include "pinned_path.h"

#include <sys/stat.h>

namespace ad_mounter {

/** The top of what is mounted at a mount point. */
enum class Presence : unsigned char {
    nothing,
    current,  ///< ours: the stored image as it is now, read-only, nosuid, nodev
    stale,    ///< ours, but an image that was replaced, or without the flags
    foreign,  ///< somebody else's
};

/**
 * Looks at the mount point `place`. A mount is ours when it is a read-only
 * squashfs or erofs and what is behind it is the stored image: by inode, or by
 * the name under which this tool (or mount(8)) attached it, which still tells
 * when the file has been replaced since. `image` is the stored image's status;
 * null when there is none.
 */
Outcome look_at_mount_point(const Place& place, const struct stat* image, Presence& presence);

/** Whether something is mounted at `path` or below it. */
bool mounted_below(const char* path);

/** The name under which an image is given to the kernel where no loop device stands between. */
struct ImageLabel {
    char text[64];
};

/** The label of the file with this status; it is unique as long as the file exists. */
ImageLabel image_label(const struct stat& image);

/** Whether a name in the run directory is such a label. */
bool is_image_label(const char* name);

}  // namespace ad_mounter

#endif
