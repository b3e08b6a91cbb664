// Paths resolved once, from a pinned directory, without following a link.
#ifndef AD_MOUNTER_PINNED_PATH_H
#define AD_MOUNTER_PINNED_PATH_H

#include "messages.h"
#include "unique_fd.h"

#include <climits>

namespace ad_mounter {

/** Whether a lookup may pass from one mount into another. */
enum class Mounts : unsigned char { cross, stay };

/**
 * openat() below `directory` for a relative path of one or more components:
 * no symbolic link, no magic link, no way out of `directory`. Uses openat2(2),
 * or a walk with O_NOFOLLOW where the kernel lacks it. O_CLOEXEC is added.
 * Gives a descriptor, or -1 with errno; ELOOP when a link is in the way and
 * EXDEV when Mounts::stay met another mount.
 */
int open_beneath(int directory, const char* path, int flags, Mounts mounts);

/** The same for an absolute path, from the root directory. */
int open_absolute(const char* path, int flags);

/** A path taken apart: its directory, held open, and its last component. */
struct Place {
    UniqueFd directory;
    const char* name = "";
    const char* path = "";
};

/**
 * Pins the directory that holds `path` (absolute, not "/"), readable so that it
 * can be synchronised. `path` must outlive `place`. errno-style: 0 or an errno.
 */
int pin_place(const char* path, Place& place);

/** A hidden name beside another one, in the same directory. */
struct SiblingName {
    char text[NAME_MAX + 1];
};

/** Where something new is prepared before it becomes `name`. */
SiblingName aside_name(const char* name);

/** Where what used to be `name` waits for its removal. */
SiblingName old_name(const char* name);

}  // namespace ad_mounter

#endif
