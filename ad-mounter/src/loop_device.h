// Loop devices: setting one up, and asking one what is behind it.
#ifndef AD_MOUNTER_LOOP_DEVICE_H
#define AD_MOUNTER_LOOP_DEVICE_H

#include "messages.h"
#include "unique_fd.h"

#include <sys/types.h>

namespace ad_mounter {

/** A loop device of ours. It frees itself with its last user, this object or a mount. */
struct LoopDevice {
    UniqueFd fd;
    dev_t device = 0;
    char path[32] = "";
};

/**
 * Attaches the open file `image` to a free loop device, read-only and with
 * auto-clear (loop(4)). `file_name` is what the device tells about its file.
 */
Outcome attach_loop_device(int image, const char* file_name, LoopDevice& loop);

/** What is behind a loop device. */
struct LoopBacking {
    dev_t device;
    ino_t inode;
    char file_name[64];
};

/** Asks the loop device `device`. False when it is none of a whole file, or cannot be asked. */
bool loop_backing(dev_t device, LoopBacking& backing);

}  // namespace ad_mounter

#endif
