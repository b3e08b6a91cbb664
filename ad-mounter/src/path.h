/**
 * Opens paths component by component, so that no symbolic link is ever followed.
 */
#pragma once

#include "base/unique_fd.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>

namespace ad_mounter {

/** Whether opening an entry may lead into another mount. */
enum class Mounts : unsigned char { cross, stay };

/**
 * openat(2) for a single name, without following a symbolic link, with O_CLOEXEC. O_PATH needs
 * O_DIRECTORY. Returns a descriptor for the caller to close, or -1 with errno: ELOOP for a
 * symbolic link, EXDEV where Mounts::stay met another mount.
 */
int open_entry(int directory, const char* name, int flags, Mounts mounts);

/**
 * Opens an absolute path from the root directory, each component as open_entry() does, across
 * mounts. Returns a descriptor for the caller to close, or -1 with errno.
 */
int open_path(const char* path, int flags);

/** The name under which procfs shows an open descriptor of this process. */
struct DescriptorPath {
    explicit DescriptorPath(int fd);
    char text[32];
};

/** The ID of the mount that an open descriptor belongs to, see proc(5). 0 with errno on failure. */
unsigned long mount_id(int fd);

/** A component that walk_path() has come to. */
struct Component {
    int parent;        ///< the open directory that holds it; AT_FDCWD for "/"
    const char* name;  ///< "/" for the root directory
    const char* path;  ///< from the root up to and including `name`
    bool last;
};

/**
 * Walks down the absolute path `path`, from the root directory on. `open` is called with each
 * Component, "/" included, and returns a descriptor, which the walk owns from there on, or -1
 * with errno, which ends the walk. Returns the last descriptor for the caller to close, or -1
 * with errno: EINVAL for an empty, "." or ".." component.
 */
template <typename Open>
int walk_path(const char* path, const Open& open) {
    char prefix[PATH_MAX];
    if (strlen(path) >= sizeof prefix) {
        errno = ENAMETOOLONG;
        return -1;
    }
    base::UniqueFd current(open(Component{AT_FDCWD, "/", "/", false}));
    for (const char* rest = path; current && *rest == '/';) {
        const char* end = strchrnul(rest + 1, '/');
        snprintf(prefix, sizeof prefix, "%.*s", static_cast<int>(end - path), path);
        const char* name = prefix + (rest + 1 - path);
        if (*name == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
            errno = EINVAL;
            return -1;
        }
        current.reset(open(Component{current.get(), name, prefix, *end == '\0'}));
        rest = end;
    }
    return current.release();
}

}  // namespace ad_mounter
