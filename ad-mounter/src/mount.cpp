#include "manifest.h"
#include "mount_state.h"
#include "path.h"
#include "prepared_mount.h"
#include "signature.h"
#include "verbs.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

struct OpenImage {
    base::UniqueFd fd;
    struct stat status;
    VerifiedImage verified;
    const char* path;
};

Outcome open_image(const char* path, OpenImage& image) {
    image.path = path;
    image.fd.reset(open_path(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!image.fd || fstat(image.fd.get(), &image.status) != 0) {
        return Outcome::failed("open", path, errno);
    }
    TRY(validate_image(image.fd.get(), path, image.verified.type));
    const bool group_writes = (image.status.st_mode & S_IWGRP) != 0 && image.status.st_gid != 0;
    const bool others_write = (image.status.st_mode & S_IWOTH) != 0;
    if (image.status.st_uid != 0 || group_writes || others_write) {
        return Outcome::refused(EX_NOPERM, "mount", path, "writable by users other than root");
    }
    return verify_image(image.fd.get(), path, image.verified);
}

// Unmounts what is on top. By name, in the open directory and without following a link: an
// open descriptor on the mount itself would keep it busy.
Outcome unmount_top(const Target& target) {
    if (fchdir(target.directory.get()) != 0) {
        return Outcome::failed("unmount", target.path, errno);
    }
    return umount2(target.name, UMOUNT_NOFOLLOW) == 0
               ? Outcome()
               : Outcome::failed("unmount", target.path, errno);
}

Outcome refuse_foreign(const Target& target) {
    return Outcome::refused(EX_NOPERM, "use mount point", target.path,
                            "something else is mounted there");
}

// Unmounts until no mount of ours is on top.
Outcome unmount_ours(const Target& target, const struct stat* image) {
    for (bool first = true;; first = false) {
        MountState state = MountState::nothing;
        TRY(inspect_mount_point(target, image, state));
        if (state == MountState::foreign && first) {
            return refuse_foreign(target);
        }
        if (state == MountState::nothing || state == MountState::foreign) {
            return {};
        }
        TRY(unmount_top(target));
    }
}

Outcome open_mount_point(const Target& target, base::UniqueFd& point) {
    point.reset(
        open_entry(target.directory.get(), target.name, O_PATH | O_DIRECTORY, Mounts::cross));
    return point ? Outcome() : Outcome::failed("open mount point", target.path, errno);
}

// Attaches the mount and checks that it is what is now seen at the mount point.
Outcome attach_checked(const PreparedMount& prepared, const struct stat& image,
                       const Target& target) {
    base::UniqueFd point;
    TRY(open_mount_point(target, point));
    const int error = attach_mount(prepared, point.get());
    if (error != 0) {
        return Outcome::failed("mount on", target.path, error);
    }
    MountState state = MountState::nothing;
    const Outcome inspected = inspect_mount_point(target, &image, state);
    if (inspected.ok() && state == MountState::current) {
        return {};
    }
    umount2(DescriptorPath(point.get()).text, MNT_DETACH);
    return inspected.ok() ? Outcome::refused(EX_TEMPFAIL, "mount on", target.path,
                                             "mount point changed meanwhile")
                          : inspected;
}

// Compares the version of what is attached at the mount point.
Outcome check_attached(const OpenImage& image, const Target& target) {
    base::UniqueFd top;
    TRY(open_mount_point(target, top));
    return check_manifest(top.get(), image.path, image.verified.version);
}

Outcome replace_mount(const OpenImage& image, const Target& target) {
    PreparedMount prepared;
    TRY(prepare_mount({image.fd.get(), image.status, image.verified.type}, image.path, prepared));
    TRY(check_manifest(prepared.detached.get(), image.path, image.verified.version));
    // Not before the new image is known to be good.
    TRY(unmount_ours(target, &image.status));
    return attach_checked(prepared, image.status, target);
}

}  // namespace

Outcome mount_image(const Operation& operation) {
    OpenImage image;
    TRY(open_image(operation.first, image));
    Target target;
    const int error = open_parent(operation.target, target);
    if (error != 0) {
        return Outcome::failed("open directory of", operation.target, error);
    }
    MountState state = MountState::nothing;
    TRY(inspect_mount_point(target, &image.status, state));
    if (state == MountState::foreign) {
        return refuse_foreign(target);
    }
    return state == MountState::current ? check_attached(image, target)
                                        : replace_mount(image, target);
}

Outcome unmount_image(const Operation& operation) {
    Target target;
    const int error = open_parent(operation.target, target);
    if (error != 0) {
        return error == ENOENT ? Outcome()
                               : Outcome::failed("open directory of", operation.target, error);
    }
    Target image;
    struct stat status;
    const bool stored = open_parent(stored_image, image) == 0 && target_status(image, status) == 0;
    return unmount_ours(target, stored ? &status : nullptr);
}

}  // namespace ad_mounter
