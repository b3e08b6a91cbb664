#include "mount.h"

#include "image.h"
#include "manifest.h"
#include "mounted.h"
#include "pinned_path.h"
#include "prepared_mount.h"
#include "signature.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "mounting";

// The image, open and verified.
struct Image {
    UniqueFd fd;
    struct stat status;
    VerifiedImage verified;
};

Outcome open_image(const char* path, Image& image) {
    image.fd.reset(open_absolute(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!image.fd.valid() || fstat(image.fd.get(), &image.status) != 0) {
        return Outcome::failed("opening the image", path, errno);
    }
    const Outcome judged = judge_image(image.fd.get(), path, image.verified.type);
    if (!judged.ok()) {
        return judged;
    }
    const bool others_write = (image.status.st_mode & S_IWOTH) != 0 ||
                              ((image.status.st_mode & S_IWGRP) != 0 && image.status.st_gid != 0);
    if (image.status.st_uid != 0 || others_write) {
        return Outcome::refused(EX_NOPERM, "checking the image", path,
                                "others than root can write to it");
    }
    return verify_image(image.fd.get(), path, image.verified);
}

// 0 or an errno.
int attach(const PreparedMount& prepared, int point) {
    int result = 0;
    if (prepared.detached.valid()) {
        result = move_mount(prepared.detached.get(), "", point, "",
                            MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH);
    } else {
        result = mount(prepared.loop.path, DescriptorPath(point).text,
                       file_system_name(prepared.type), MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr);
    }
    return result == 0 ? 0 : errno;
}

// Takes one mount of ours off. The name is looked up by the kernel once more,
// in the pinned directory and without following a link: an open descriptor on
// the mount itself would keep it busy.
Outcome unmount_top(const Place& place) {
    if (fchdir(place.directory.get()) != 0) {
        return Outcome::failed("unmounting", place.path, errno);
    }
    if (umount2(place.name, UMOUNT_NOFOLLOW) == 0) {
        return {};
    }
    return errno == EBUSY ? Outcome::refused(EX_TEMPFAIL, "unmounting", place.path,
                                             "it is busy: something in it is in use")
                          : Outcome::failed("unmounting", place.path, errno);
}

Outcome refuse_foreign(const Place& place) {
    return Outcome::refused(EX_NOPERM, "looking at the mount point", place.path,
                            "something else is mounted there");
}

// Unmounts until nothing of ours is on top.
Outcome unmount_ours(const Place& place, const struct stat* image) {
    for (bool first = true;; first = false) {
        Presence presence = Presence::nothing;
        const Outcome looked = look_at_mount_point(place, image, presence);
        if (!looked.ok()) {
            return looked;
        }
        if (presence == Presence::foreign && first) {
            return refuse_foreign(place);
        }
        if (presence == Presence::nothing || presence == Presence::foreign) {
            return {};
        }
        const Outcome unmounted = unmount_top(place);
        if (!unmounted.ok()) {
            return unmounted;
        }
    }
}

Outcome attach_checked(const PreparedMount& prepared, const struct stat& image,
                       const Place& place) {
    const UniqueFd point(
        open_beneath(place.directory.get(), place.name, O_PATH | O_DIRECTORY, Mounts::cross));
    if (!point.valid()) {
        return Outcome::failed("opening the mount point", place.path, errno);
    }
    const int error = attach(prepared, point.get());
    if (error != 0) {
        return Outcome::failed(step, place.path, error);
    }
    Presence presence = Presence::nothing;
    Outcome outcome = look_at_mount_point(place, &image, presence);
    if (outcome.ok() && presence == Presence::current) {
        return outcome;
    }
    umount2(DescriptorPath(point.get()).text, MNT_DETACH);
    if (outcome.ok()) {
        outcome = Outcome::refused(EX_TEMPFAIL, "checking the mount", place.path,
                                   "the mount point changed meanwhile");
    }
    return outcome;
}

// The version of what is mounted already, or was in the classic way.
Outcome check_mounted(const Image& image, const char* path, const Place& place) {
    const UniqueFd top(
        open_beneath(place.directory.get(), place.name, O_PATH | O_DIRECTORY, Mounts::cross));
    return top.valid() ? check_manifest(top.get(), path, image.verified.version)
                       : Outcome::failed("opening the mount point", place.path, errno);
}

Outcome mount_anew(const Image& image, const char* path, const Place& place) {
    PreparedMount prepared;
    const ImageFile file = {image.fd.get(), image.status, image.verified.type};
    Outcome outcome = prepare_mount(file, path, prepared);
    if (outcome.ok() && prepared.detached.valid()) {
        outcome = check_manifest(prepared.detached.get(), path, image.verified.version);
    }
    // An older image stays until the new one is known to be good.
    if (outcome.ok()) {
        outcome = unmount_ours(place, &image.status);
    }
    if (outcome.ok()) {
        outcome = attach_checked(prepared, image.status, place);
    }
    if (outcome.ok() && !prepared.detached.valid()) {
        outcome = check_mounted(image, path, place);
        if (!outcome.ok()) {
            (void)unmount_top(place);
        }
    }
    return outcome;
}

}  // namespace

Outcome mount_image(const Row& row) {
    Image image;
    Outcome outcome = open_image(row.first, image);
    if (!outcome.ok()) {
        return outcome;
    }
    Place place;
    const int error = pin_place(row.target, place);
    if (error != 0) {
        return Outcome::failed("opening the mount point", row.target, error);
    }
    Presence presence = Presence::nothing;
    outcome = look_at_mount_point(place, &image.status, presence);
    if (!outcome.ok()) {
        return outcome;
    }
    if (presence == Presence::current) {
        return check_mounted(image, row.first, place);
    }
    if (presence == Presence::foreign) {
        return refuse_foreign(place);
    }
    return mount_anew(image, row.first, place);
}

Outcome unmount_image(const Row& row) {
    Place place;
    const int error = pin_place(row.target, place);
    if (error != 0) {
        return error == ENOENT ? Outcome()
                               : Outcome::failed("opening the mount point", row.target, error);
    }
    const UniqueFd image(open_absolute(stored_image, O_PATH));
    struct stat status;
    const bool stored = image.valid() && fstat(image.get(), &status) == 0;
    return unmount_ours(place, stored ? &status : nullptr);
}

}  // namespace ad_mounter
