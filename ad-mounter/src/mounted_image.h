/**
 * What is installed from: the mounted image, and nothing else.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"

namespace ad_mounter {

/**
 * Opens `path`, which lies below the mount point, with the flags of openat(2), in the mount that
 * is on top of the mount point. Refuses it unless that is the tool's own mount of the image that
 * is stored now; never follows a symbolic link or leaves the mount.
 */
Outcome open_mounted(const char* path, int flags, base::UniqueFd& fd);

}  // namespace ad_mounter
