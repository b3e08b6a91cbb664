/**
 * Whether a file can still be changed after it has been checked.
 */
#pragma once

#include <sys/stat.h>

namespace ad_mounter {

/**
 * How users other than root could change the file that is open for reading as `fd`, now or
 * later; null when they cannot. `status` is its fstat(2). It must be root's alone and on a file
 * system that keeps owners itself, and nobody may have it open or mapped for writing, which
 * fcntl(2) shows by granting a read lease.
 */
const char* foreign_write_access(int fd, const struct stat& status);

}  // namespace ad_mounter
