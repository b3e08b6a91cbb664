#include "atomic_file.h"
#include "directories.h"
#include "file_copy.h"
#include "image.h"
#include "manifest.h"
#include "path.h"
#include "prepared_mount.h"
#include "signature.h"
#include "verbs.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// The downloaded image. Its directory may belong to a user, who can change what the name
// stands for at any time: only the descriptor counts.
struct Download {
    Target target;
    base::UniqueFd fd;
    struct stat status;
};

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

Outcome open_download(const char* path, Download& download) {
    const int error = open_parent(path, download.target);
    if (error != 0) {
        return Outcome::failed("open directory of", path, error);
    }
    download.fd.reset(open_entry(download.target.directory.get(), download.target.name,
                                 O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    if (!download.fd) {
        return Outcome::failed("open", path, errno);
    }
    FileSystem type = FileSystem::squashfs;
    return validate_image(download.fd.get(), path, type);
}

// Reads the download's status and refuses a file that its caller may not be able to read: of
// another user, or with another hard link, which the caller may have made to somebody's file.
Outcome check_owner(Download& download, const Caller& caller) {
    const char* path = download.target.path;
    if (fstat(download.fd.get(), &download.status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    const uid_t owner = download.status.st_uid;
    if (owner != 0 && owner != caller.user && caller.user != 0) {
        return Outcome::refused(EX_NOPERM, "use", path, "owned by another user");
    }
    if (owner != 0 && download.status.st_nlink != 1) {
        return Outcome::refused(EX_NOPERM, "use", path, "has more than one hard link");
    }
    return {};
}

// Whether the download itself may become the stored image: only root can write to it, now or
// through a descriptor opened earlier.
bool may_be_linked(const Download& download) {
    constexpr mode_t others = S_IWGRP | S_IWOTH;
    struct stat directory;
    return fstat(download.target.directory.get(), &directory) == 0 && directory.st_uid == 0 &&
           (directory.st_mode & others) == 0 && download.status.st_uid == 0 &&
           (download.status.st_mode & others) == 0 && download.status.st_nlink == 1;
}

Outcome copy_download(const Download& download, AtomicFile& file, const char* path) {
    const auto size = static_cast<uint64_t>(download.status.st_size);
    TRY(file.create(size));
    const int error = copy_bytes(download.fd.get(), file.fd(), size);
    return error == 0 ? Outcome() : Outcome::failed("copy to", path, error);
}

// Verifies the file that becomes the stored image. Its manifest is read from a mount that is
// not attached.
Outcome verify_stored(int fd, const char* path) {
    VerifiedImage image;
    TRY(verify_image(fd, path, image));
    ImageFile file = {fd, {}, image.type};
    if (fstat(fd, &file.status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    PreparedMount prepared;
    TRY(prepare_mount(file, path, prepared));
    return check_manifest(prepared.detached.get(), path, image.version);
}

Outcome install_download(const Download& download, const Target& target, const Operation& operation,
                         const Caller& caller) {
    AtomicFile file(target);
    if (!may_be_linked(download) || file.link(download.fd.get()) != 0) {
        TRY(copy_download(download, file, operation.target));
    }
    TRY(verify_stored(file.fd(), operation.first));
    return file.commit(ownership_of(&operation, caller));
}

// Leaves a file alone that has taken the download's name since.
Outcome remove_download(const Download& download) {
    struct stat now;
    if (target_status(download.target, now) != 0 || !same_file(now, download.status)) {
        return {};
    }
    return unlinkat(download.target.directory.get(), download.target.name, 0) == 0 ||
                   errno == ENOENT
               ? Outcome()
               : Outcome::failed("remove", download.target.path, errno);
}

}  // namespace

Outcome replace_image(const Operation& operation, const Caller& caller) {
    Download download;
    TRY(open_download(operation.first, download));
    Target target;
    TRY(ensure_parent(operation, caller, target));
    TRY(AtomicFile(target).remove_leftover());
    TRY(refuse_symbolic_link(target));
    // After removing the leftover of a killed run, which is a hard link to the download.
    TRY(check_owner(download, caller));
    struct stat stored;
    // A run that was killed before it removed the download has stored it already.
    const bool in_place = target_status(target, stored) == 0 && same_file(stored, download.status);
    TRY(in_place ? verify_stored(download.fd.get(), operation.first)
                 : install_download(download, target, operation, caller));
    return remove_download(download);
}

}  // namespace ad_mounter
