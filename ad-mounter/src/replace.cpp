#include "atomic_file.h"
#include "directories.h"
#include "image.h"
#include "manifest.h"
#include "path.h"
#include "prepared_mount.h"
#include "product.h"
#include "signature.h"
#include "trusted_path.h"
#include "verbs.h"
#include "version_floor.h"
#include "write_access.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* consequence = "image not stored";

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
    TRY(open_parent(path, download.target));
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
// through a descriptor or mapping of earlier.
bool may_be_linked(const Download& download) {
    struct stat directory;
    return fstat(download.target.directory.get(), &directory) == 0 &&
           untrusted_reason(directory) == nullptr && download.status.st_nlink == 1 &&
           foreign_write_access(download.fd.get(), download.status) == nullptr;
}

// Reads the manifest from a mount that is not attached.
Outcome check_version(int fd, const char* path, const ImageVerifier& image) {
    ImageFile file = {fd, {}, image.type()};
    if (fstat(fd, &file.status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    PreparedMount prepared;
    TRY(prepare_mount(file, path, prepared));
    return check_manifest(prepared.detached.get(), path, image.comment().version);
}

Outcome install_download(const Download& download, ImageVerifier& image, const Target& target,
                         const Ownership& ownership) {
    AtomicFile file(target);
    if (may_be_linked(download) && file.link(download.fd.get()) == 0) {
        TRY(image.verify_content());
    } else {
        TRY(file.create(image.file_size()));
        TRY(image.copy_content(file.fd(), target.path));
    }
    TRY(check_version(file.fd(), download.target.path, image));
    return file.commit(ownership);
}

// A run that was killed before it removed the download has stored it already.
Outcome verify_in_place(const Download& download, ImageVerifier& image, const Target& target) {
    TRY(image.verify_content());
    TRY(check_version(download.fd.get(), download.target.path, image));
    return sync_parent(target);
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
    Keys keys;
    TRY(load_keys(keys));
    ImageVerifier image(download.fd.get(), operation.first);
    TRY(image.verify_comment(keys, operation.limit));
    TRY(check_product(image.comment(), operation.first, consequence));
    VersionFloor floor;
    TRY(floor.read(target, keys));
    TRY(floor.check(image.comment().version, operation.first, consequence));
    struct stat stored;
    const bool in_place = target_status(target, stored) == 0 && same_file(stored, download.status);
    TRY(in_place ? verify_in_place(download, image, target)
                 : install_download(download, image, target, ownership_of(&operation, caller)));
    TRY(floor.raise(image.comment().version));
    return remove_download(download);
}

}  // namespace ad_mounter
