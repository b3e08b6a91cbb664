#include "pinned_path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace ad_mounter {

namespace {

// Lookups that met a concurrent rename are tried again, not for ever.
constexpr int lookup_tries = 32;

int open_with_openat2(int directory, const char* path, int flags, Mounts mounts) {
    open_how how = {};
    how.flags = static_cast<unsigned>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    if (mounts == Mounts::stay) {
        how.resolve |= RESOLVE_NO_XDEV;
    }
    int fd = -1;
    for (int i = 0; i < lookup_tries; ++i) {
        fd = static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
        if (fd >= 0 || errno != EAGAIN) {
            break;
        }
    }
    return fd;
}

bool is_link(int directory, const char* name) {
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

bool same_mount(int one, int other) {
    struct statx a;
    struct statx b;
    if (statx(one, "", AT_EMPTY_PATH, STATX_MNT_ID, &a) != 0 ||
        statx(other, "", AT_EMPTY_PATH, STATX_MNT_ID, &b) != 0) {
        return false;
    }
    if ((a.stx_mask & b.stx_mask & STATX_MNT_ID) != 0) {
        return a.stx_mnt_id == b.stx_mnt_id;
    }
    return a.stx_dev_major == b.stx_dev_major && a.stx_dev_minor == b.stx_dev_minor;
}

// One component, with O_NOFOLLOW.
int open_component(int directory, const char* name, int flags, Mounts mounts) {
    UniqueFd fd(openat(directory, name, flags | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ENOTDIR && is_link(directory, name)) {
            errno = ELOOP;
        }
        return -1;
    }
    struct stat status;
    if ((flags & O_PATH) != 0 && fstat(fd.get(), &status) == 0 && S_ISLNK(status.st_mode)) {
        errno = ELOOP;
        return -1;
    }
    if (mounts == Mounts::stay && !same_mount(directory, fd.get())) {
        errno = EXDEV;
        return -1;
    }
    return fd.release();
}

int open_by_walking(int directory, const char* path, int flags, Mounts mounts) {
    UniqueFd current;
    for (;;) {
        const char* slash = strchr(path, '/');
        const size_t length = slash != nullptr ? static_cast<size_t>(slash - path) : strlen(path);
        char name[NAME_MAX + 1];
        if (length == 0 || length > NAME_MAX) {
            errno = length == 0 ? EINVAL : ENAMETOOLONG;
            return -1;
        }
        memcpy(name, path, length);
        name[length] = '\0';
        if (strcmp(name, "..") == 0) {
            errno = EXDEV;
            return -1;
        }
        const int from = current.valid() ? current.get() : directory;
        if (slash == nullptr) {
            return open_component(from, name, flags, mounts);
        }
        UniqueFd next(open_component(from, name, O_PATH | O_DIRECTORY, mounts));
        if (!next.valid()) {
            return -1;
        }
        current = static_cast<UniqueFd&&>(next);
        path = slash + 1;
    }
}

}  // namespace

int open_beneath(int directory, const char* path, int flags, Mounts mounts) {
    const int fd = open_with_openat2(directory, path, flags, mounts);
    // EPERM is what some system-call filters say to a call they do not know.
    if (fd >= 0 || (errno != ENOSYS && errno != EPERM)) {
        return fd;
    }
    return open_by_walking(directory, path, flags, mounts);
}

int open_absolute(const char* path, int flags) {
    const UniqueFd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.valid()) {
        return -1;
    }
    return open_beneath(root.get(), path + 1, flags, Mounts::cross);
}

int pin_place(const char* path, Place& place) {
    const char* slash = strrchr(path, '/');
    const auto length = static_cast<size_t>(slash - path);
    char parent[PATH_MAX];
    if (length >= sizeof parent) {
        return ENAMETOOLONG;
    }
    memcpy(parent, path, length);
    parent[length] = '\0';
    place.path = path;
    place.name = slash + 1;
    place.directory.reset(open_absolute(parent, O_RDONLY | O_DIRECTORY));
    return place.directory.valid() ? 0 : errno;
}

SiblingName aside_name(const char* name) {
    SiblingName sibling;
    snprintf(sibling.text, sizeof sibling.text, ".%s.ad-mounter", name);
    return sibling;
}

SiblingName old_name(const char* name) {
    SiblingName sibling;
    snprintf(sibling.text, sizeof sibling.text, ".%s.ad-mounter-old", name);
    return sibling;
}

}  // namespace ad_mounter
