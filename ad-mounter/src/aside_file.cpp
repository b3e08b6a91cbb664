#include "aside_file.h"

#include "remove.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace ad_mounter {

AsideFile::AsideFile(const Place& place) : place_(place), aside_(aside_name(place.name)) {}

AsideFile::~AsideFile() {
    if (pending_) {
        (void)unlinkat(place_.directory.get(), aside_.text, 0);
    }
}

Outcome AsideFile::clean() { return discard(place_.directory.get(), aside_.text, place_.path); }

Outcome AsideFile::make(uint64_t size) {
    struct statvfs room;
    if (fstatvfs(place_.directory.get(), &room) != 0) {
        return Outcome::failed("checking for room", place_.path, errno);
    }
    // A file system that does not count its blocks has as many as it needs.
    if (room.f_blocks != 0 && size > static_cast<uint64_t>(room.f_bavail) * room.f_frsize) {
        return Outcome::failed("checking for room", place_.path, ENOSPC);
    }
    made_.reset(openat(place_.directory.get(), aside_.text,
                       O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!made_.valid()) {
        return Outcome::failed(EX_CANTCREAT, "making the new file", place_.path, errno);
    }
    fd_ = made_.get();
    pending_ = true;
    return {};
}

int AsideFile::link(int fd) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (linkat(AT_FDCWD, path, place_.directory.get(), aside_.text, AT_SYMLINK_FOLLOW) != 0) {
        return errno;
    }
    fd_ = fd;
    pending_ = true;
    return 0;
}

Outcome AsideFile::commit(mode_t mode) {
    if (fchown(fd_, 0, 0) != 0 || fchmod(fd_, mode) != 0) {
        return Outcome::failed("setting owner and mode", place_.path, errno);
    }
    if (fsync(fd_) != 0) {
        return Outcome::failed("synchronising the new file", place_.path, errno);
    }
    const int directory = place_.directory.get();
    if (renameat(directory, aside_.text, directory, place_.name) != 0) {
        return Outcome::failed("renaming into place", place_.path, errno);
    }
    pending_ = false;
    if (fsync(directory) != 0) {
        return Outcome::failed("synchronising the directory", place_.path, errno);
    }
    return {};
}

Outcome refuse_link(const Place& place) {
    struct stat status;
    if (fstatat(place.directory.get(), place.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(status.st_mode)) {
        return Outcome::failed("looking at", place.path, ELOOP);
    }
    return {};
}

}  // namespace ad_mounter
