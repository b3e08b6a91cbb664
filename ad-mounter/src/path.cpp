#include "path.h"

#include "base/file_io.h"

#include <cstdlib>

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

bool is_symbolic_link(int directory, const char* name) {
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

int open_across_mounts(int directory, const char* name, int flags) {
    const int fd = openat(directory, name, flags | O_NOFOLLOW | O_CLOEXEC);
    // What O_NOFOLLOW reports together with O_DIRECTORY.
    if (fd < 0 && errno == ENOTDIR && is_symbolic_link(directory, name)) {
        errno = ELOOP;
    }
    return fd;
}

int open_in_same_mount(int directory, const char* name, int flags) {
    base::UniqueFd fd(open_across_mounts(directory, name, flags));
    const unsigned long id = fd ? mount_id(fd.get()) : 0;
    const unsigned long directory_id = id != 0 ? mount_id(directory) : 0;
    if (directory_id == 0) {
        return -1;
    }
    if (id != directory_id) {
        errno = EXDEV;
        return -1;
    }
    return fd.release();
}

}  // namespace

int open_entry(int directory, const char* name, int flags, Mounts mounts) {
    if (mounts == Mounts::cross) {
        return open_across_mounts(directory, name, flags);
    }
    open_how how = {};
    how.flags = static_cast<unsigned>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    const int fd = static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof how));
    return fd < 0 && errno == ENOSYS ? open_in_same_mount(directory, name, flags) : fd;
}

int open_path(const char* path, int flags) {
    return walk_path(path, [flags](const Component& component) {
        return open_entry(component.parent, component.name,
                          component.last ? flags : O_PATH | O_DIRECTORY, Mounts::cross);
    });
}

DescriptorPath::DescriptorPath(int fd) { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }

unsigned long mount_id(int fd) {
    char path[48];
    snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    const base::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    char text[256];
    const ssize_t length = file ? base::read_full(file.get(), text, sizeof text - 1) : -1;
    if (length < 0) {
        return 0;
    }
    text[length] = '\0';
    const char* field = strstr(text, "mnt_id:");
    errno = ENODATA;
    return field != nullptr ? strtoul(field + strlen("mnt_id:"), nullptr, 10) : 0;
}

}  // namespace ad_mounter
