/**
 * Sets up loop devices and queries them, see loop(4).
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"

#include <sys/types.h>

namespace ad_mounter {

/** A loop device that detaches itself when its last user, this object or a mount, is gone. */
struct LoopDevice {
    base::UniqueFd fd;
    char path[32] = "";
};

/**
 * Attaches the open file `image` to a free loop device, read-only and with autoclear.
 * `file_name`, at most 63 characters, is what the device reports as its backing file.
 */
Outcome attach_loop_device(int image, const char* file_name, LoopDevice& loop);

/** What is behind a loop device. */
struct LoopBacking {
    dev_t device;
    ino_t inode;
    char file_name[64];
};

/** Queries the block device `device`. False unless it is a loop device over a whole file. */
bool query_loop_device(dev_t device, LoopBacking& backing);

}  // namespace ad_mounter
