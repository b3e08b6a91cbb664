#include "atomic_file.h"

#include "path.h"
#include "removal.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace ad_mounter {

AtomicFile::~AtomicFile() {
    if (pending_) {
        (void)unlinkat(target_.directory.get(), temporary_.text, 0);
    }
}

Outcome AtomicFile::remove_leftover() {
    return remove_recursively(target_.directory.get(), temporary_.text, target_.path);
}

Outcome AtomicFile::create(uint64_t size) {
    struct statvfs room;
    if (fstatvfs(target_.directory.get(), &room) != 0) {
        return Outcome::failed("check free space for", target_.path, errno);
    }
    // File systems that do not count blocks report none at all.
    if (room.f_blocks != 0 && size > static_cast<uint64_t>(room.f_bavail) * room.f_frsize) {
        return Outcome::failed("check free space for", target_.path, ENOSPC);
    }
    // O_EXCL: the directory may be a user's, who could have put a file there by now.
    created_.reset(openat(target_.directory.get(), temporary_.text,
                          O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!created_) {
        return Outcome::failed("create temporary file for", target_.path, errno);
    }
    fd_ = created_.get();
    pending_ = true;
    return {};
}

int AtomicFile::link(int fd) {
    if (linkat(AT_FDCWD, DescriptorPath(fd).text, target_.directory.get(), temporary_.text,
               AT_SYMLINK_FOLLOW) != 0) {
        return errno;
    }
    fd_ = fd;
    pending_ = true;
    return 0;
}

Outcome AtomicFile::commit(const Ownership& ownership, Existing existing) {
    int error = set_ownership(fd_, ownership);
    if (error != 0) {
        return Outcome::failed("set owner and mode of", target_.path, error);
    }
    if (fsync(fd_) != 0) {
        return Outcome::failed("sync", target_.path, errno);
    }
    const int directory = target_.directory.get();
    error = rename_within(directory, temporary_.text, target_.name, existing);
    if (error == EEXIST && existing == Existing::keep) {
        return {};
    }
    if (error != 0) {
        return Outcome::failed("rename temporary file to", target_.path, error);
    }
    pending_ = false;
    return sync_parent(target_);
}

}  // namespace ad_mounter
