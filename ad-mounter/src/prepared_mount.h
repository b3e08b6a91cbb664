// An image mounted, but attached nowhere yet.
#ifndef AD_MOUNTER_PREPARED_MOUNT_H
#define AD_MOUNTER_PREPARED_MOUNT_H

#include "image.h"
#include "loop_device.h"
#include "messages.h"
#include "unique_fd.h"

#include <sys/stat.h>

namespace ad_mounter {

/** The path by which the kernel finds an open descriptor. */
struct DescriptorPath {
    explicit DescriptorPath(int fd);
    char text[32];
};

/** An image's open file, judged. The descriptor is not owned. */
struct ImageFile {
    int fd;
    struct stat status;
    FileSystem type;
};

/**
 * A mount that is ready to be attached and goes with this object. Without the
 * new mount interface (fsopen(2)) it is only a loop device, to be mounted in
 * the classic way, and `detached` is not valid.
 */
struct PreparedMount {
    FileSystem type = FileSystem::squashfs;
    UniqueFd detached;
    LoopDevice loop;
};

/** Prepares the mount of `image`: read-only, nosuid, nodev. `path` is for the failure's line. */
Outcome prepare_mount(const ImageFile& image, const char* path, PreparedMount& prepared);

}  // namespace ad_mounter

#endif
