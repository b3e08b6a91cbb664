/**
 * Prepares the mount of an image without attaching it anywhere.
 */
#pragma once

#include "base/unique_fd.h"
#include "image.h"
#include "loop_device.h"
#include "outcome.h"

#include <sys/stat.h>

namespace ad_mounter {

/** A validated image. The descriptor is not owned. */
struct ImageFile {
    int fd;
    struct stat status;
    FileSystem type;
};

/** A mount that disappears with this object unless it is attached. */
struct PreparedMount {
    FileSystem type = FileSystem::squashfs;
    base::UniqueFd detached;  ///< the top directory
    /** Whether move_mount(2) can attach it; otherwise the loop device is mounted again. */
    bool movable = true;
    /** Behind the mount, unless that is of the file itself. */
    LoopDevice loop;
};

/** Prepares the mount of `image`: read-only, nosuid, nodev. `path` is for error messages. */
Outcome prepare_mount(const ImageFile& image, const char* path, PreparedMount& prepared);

/** Attaches it at the open directory `point`. Returns 0 or an errno value. */
int attach_mount(const PreparedMount& prepared, int point);

}  // namespace ad_mounter
