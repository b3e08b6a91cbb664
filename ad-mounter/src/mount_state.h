/**
 * Determines what is mounted where.
 */
#pragma once

#include "outcome.h"
#include "target.h"

#include <sys/stat.h>

namespace ad_mounter {

/** What is on top of a mount point. */
enum class MountState : unsigned char {
    nothing,
    current,  ///< the stored image as it is now, read-only, nosuid and nodev
    stale,    ///< a stored image that has been replaced since, or without those flags
    foreign,  ///< anything else
};

/**
 * Inspects the mount point `target`. A read-only squashfs or erofs mount is ours when the
 * stored image is behind it: by inode, or by the name that this tool, or mount(8), recorded,
 * which also identifies an image that has been replaced since. `image` is the stored image's
 * status; null when there is none.
 */
Outcome inspect_mount_point(const Target& target, const struct stat* image, MountState& state);

/** As above; `point` becomes an O_PATH descriptor of the directory that has been inspected. */
Outcome inspect_mount_point(const Target& target, const struct stat* image, MountState& state,
                            base::UniqueFd& point);

/** Whether anything is mounted at `path` or below it. */
bool is_mounted_below(const char* path);

/** The name in the run directory under which the kernel is given an image without loop device. */
struct ImageLabel {
    char text[64];
};

/** The label of the image with this status; unique as long as the file exists. */
ImageLabel image_label(const struct stat& image);

/** Whether an entry of the run directory is such a label. */
bool is_image_label(const char* name);

}  // namespace ad_mounter
