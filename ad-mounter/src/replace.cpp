#include "replace.h"

#include "aside_file.h"
#include "copy.h"
#include "image.h"
#include "manifest.h"
#include "pinned_path.h"
#include "prepared_mount.h"
#include "signature.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

// The downloaded image. Its directory may be a user's: nothing about the name
// can be relied on, so everything is done on the descriptor.
struct Download {
    Place place;
    UniqueFd fd;
    struct stat status;
};

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

Outcome open_download(const char* path, Download& download) {
    constexpr const char* step = "opening the download";
    const int error = pin_place(path, download.place);
    if (error != 0) {
        return Outcome::failed(step, path, error);
    }
    download.fd.reset(open_beneath(download.place.directory.get(), download.place.name,
                                   O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    if (!download.fd.valid()) {
        return Outcome::failed(step, path, errno);
    }
    FileSystem type = FileSystem::squashfs;
    return judge_image(download.fd.get(), path, type);
}

// A file that a user owns is read only when it is that user's alone: another
// name of it may be somebody else's file.
Outcome check_owner(Download& download, const Caller& caller) {
    constexpr const char* step = "checking the download";
    if (fstat(download.fd.get(), &download.status) != 0) {
        return Outcome::failed(step, download.place.path, errno);
    }
    if (download.status.st_uid == 0) {
        return {};
    }
    if (download.status.st_uid != caller.user && caller.user != 0) {
        return Outcome::refused(EX_NOPERM, step, download.place.path, "it is another user's");
    }
    if (download.status.st_nlink != 1) {
        return Outcome::refused(EX_NOPERM, step, download.place.path, "it has several names");
    }
    return {};
}

// Only a file that nobody but root can write to, now or through a descriptor
// opened before, may become the stored image itself.
bool may_be_linked(const Download& download) {
    struct stat directory;
    constexpr mode_t others = S_IWGRP | S_IWOTH;
    return fstat(download.place.directory.get(), &directory) == 0 && directory.st_uid == 0 &&
           (directory.st_mode & others) == 0 && download.status.st_uid == 0 &&
           (download.status.st_mode & others) == 0 && download.status.st_nlink == 1;
}

Outcome copy_download(const Download& download, AsideFile& file, const char* path) {
    const auto size = static_cast<uint64_t>(download.status.st_size);
    const Outcome made = file.make(size);
    if (!made.ok()) {
        return made;
    }
    const int error = copy_bytes(download.fd.get(), file.fd(), size);
    return error != 0 ? Outcome::failed("copying", path, error) : Outcome();
}

Outcome remove_download(const Download& download) {
    struct stat now;
    const int directory = download.place.directory.get();
    if (fstatat(directory, download.place.name, &now, AT_SYMLINK_NOFOLLOW) != 0 ||
        !same_file(now, download.status)) {
        return {};
    }
    if (unlinkat(directory, download.place.name, 0) != 0 && errno != ENOENT) {
        return Outcome::failed("removing the download", download.place.path, errno);
    }
    return {};
}

// Verifies the very file that becomes the stored image. Its manifest is read
// from a mount that nobody else sees; a kernel that has none such leaves the
// version to --mount.
Outcome verify_stored(int fd, const char* path) {
    VerifiedImage image;
    ImageFile file = {fd, {}, FileSystem::squashfs};
    Outcome outcome = verify_image(fd, path, image);
    if (outcome.ok() && fstat(fd, &file.status) != 0) {
        outcome = Outcome::failed("verifying the signature", path, errno);
    }
    file.type = image.type;
    PreparedMount prepared;
    if (outcome.ok()) {
        outcome = prepare_mount(file, path, prepared);
    }
    return outcome.ok() && prepared.detached.valid()
               ? check_manifest(prepared.detached.get(), path, image.version)
               : outcome;
}

Outcome install_download(const Download& download, const Place& place, const Row& row) {
    AsideFile file(place);
    if (!may_be_linked(download) || file.link(download.fd.get()) != 0) {
        const Outcome copied = copy_download(download, file, row.target);
        if (!copied.ok()) {
            return copied;
        }
    }
    const Outcome verified = verify_stored(file.fd(), row.first);
    return verified.ok() ? file.commit(row.mode) : verified;
}

}  // namespace

Outcome replace_image(const Row& row, const Caller& caller) {
    Download download;
    Outcome outcome = open_download(row.first, download);
    if (!outcome.ok()) {
        return outcome;
    }
    Place place;
    outcome = pin_target(row, caller, place);
    if (outcome.ok()) {
        outcome = AsideFile(place).clean();
    }
    if (outcome.ok()) {
        outcome = refuse_link(place);
    }
    // Only now: what a run that was cut short left was another name of it.
    if (outcome.ok()) {
        outcome = check_owner(download, caller);
    }
    if (!outcome.ok()) {
        return outcome;
    }
    struct stat stored;
    const bool in_place =
        fstatat(place.directory.get(), place.name, &stored, AT_SYMLINK_NOFOLLOW) == 0 &&
        same_file(stored, download.status);
    outcome = in_place ? verify_stored(download.fd.get(), row.first)
                       : install_download(download, place, row);
    return outcome.ok() ? remove_download(download) : outcome;
}

}  // namespace ad_mounter
