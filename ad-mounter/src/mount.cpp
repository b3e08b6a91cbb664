#include "manifest.h"
#include "mount_state.h"
#include "path.h"
#include "prepared_mount.h"
#include "product.h"
#include "signature.h"
#include "verbs.h"
#include "version_floor.h"
#include "write_access.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* consequence = "image not mounted";

struct OpenImage {
    explicit OpenImage(const char* image_path) : path(image_path) {}

    const char* path;
    Target target;
    base::UniqueFd fd;
    struct stat status = {};
    FileSystem type = FileSystem::squashfs;
    char version[version_size] = "";  // as signed
    VersionFloor floor;
};

Outcome verify_opened(OpenImage& image, uint64_t limit) {
    Keys keys;
    TRY(load_keys(keys));
    ImageVerifier verifier(image.fd.get(), image.path);
    TRY(verifier.verify_comment(keys, limit));
    TRY(check_product(verifier.comment(), image.path, consequence));
    TRY(verifier.verify_content());
    copy_version(verifier.comment().version, image.version);
    image.type = verifier.type();
    return image.floor.read(image.target, keys);
}

Outcome open_image(OpenImage& image, uint64_t limit) {
    TRY(open_parent(image.path, image.target));
    image.fd.reset(open_entry(image.target.directory.get(), image.target.name,
                              O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    if (!image.fd || fstat(image.fd.get(), &image.status) != 0) {
        return Outcome::failed("open", image.path, errno);
    }
    TRY(validate_image(image.fd.get(), image.path, image.type));
    const char* reason = foreign_write_access(image.fd.get(), image.status);
    return reason == nullptr ? verify_opened(image, limit)
                             : Outcome::refused(EX_NOPERM, "mount", image.path, reason);
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

// Unmounts until no mount of ours is on top. `state` is what is there then.
Outcome unmount_ours(const Target& target, const struct stat* image, MountState& state) {
    for (bool first = true;; first = false) {
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

// Compares the version in the mounted image, whose top directory is `top`, and records it: a
// power cut may have come between storing the image and that.
Outcome check_mounted(OpenImage& image, int top) {
    TRY(check_manifest(top, image.path, image.version));
    return image.floor.raise(image.version);
}

Outcome check_attached(OpenImage& image, const Target& target) {
    base::UniqueFd top;
    TRY(open_mount_point(target, top));
    return check_mounted(image, top.get());
}

Outcome replace_mount(OpenImage& image, const Target& target) {
    PreparedMount prepared;
    TRY(prepare_mount({image.fd.get(), image.status, image.type}, image.path, prepared));
    TRY(check_mounted(image, prepared.detached.get()));
    // Not before the new image is known to be good.
    MountState below = MountState::nothing;
    TRY(unmount_ours(target, &image.status, below));
    return below == MountState::foreign ? refuse_foreign(target)
                                        : attach_checked(prepared, image.status, target);
}

}  // namespace

Outcome mount_image(const Operation& operation) {
    OpenImage image(operation.first);
    TRY(open_image(image, operation.limit));
    Target target;
    TRY(open_parent(operation.target, target));
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
    const Outcome opened = open_parent(operation.target, target);
    if (!opened.ok()) {
        return opened.status() == EX_NOINPUT ? Outcome() : opened;
    }
    Target image;
    struct stat status;
    const bool stored = open_parent(stored_image, image).ok() && target_status(image, status) == 0;
    MountState below = MountState::nothing;
    return unmount_ours(target, stored ? &status : nullptr, below);
}

}  // namespace ad_mounter
