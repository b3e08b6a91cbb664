#include "mount.h"

#include "directory_reader.h"
#include "image.h"
#include "loop_device.h"
#include "mounted.h"
#include "pinned_path.h"

#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "mounting";

struct DescriptorPath {
    explicit DescriptorPath(int fd) { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
    char text[32];
};

// The image, open and judged.
struct Image {
    UniqueFd fd;
    struct stat status;
    FileSystem type = FileSystem::squashfs;
};

Outcome open_image(const char* path, Image& image) {
    image.fd.reset(open_absolute(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!image.fd.valid() || fstat(image.fd.get(), &image.status) != 0) {
        return Outcome::failed("opening the image", path, errno);
    }
    const Outcome judged = judge_image(image.fd.get(), path, image.type);
    if (!judged.ok()) {
        return judged;
    }
    const bool others_write = (image.status.st_mode & S_IWOTH) != 0 ||
                              ((image.status.st_mode & S_IWGRP) != 0 && image.status.st_gid != 0);
    if (image.status.st_uid != 0 || others_write) {
        return Outcome::refused(EX_NOPERM, "checking the image", path,
                                "others than root can write to it");
    }
    return {};
}

// A mount of `source` that is attached nowhere yet. -1 with errno.
int detached_mount(FileSystem type, const char* source) {
    const UniqueFd context(fsopen(file_system_name(type), FSOPEN_CLOEXEC));
    if (!context.valid() ||
        fsconfig(context.get(), FSCONFIG_SET_STRING, "source", source, 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_SET_FLAG, "ro", nullptr, 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
        return -1;
    }
    return fsmount(context.get(), FSMOUNT_CLOEXEC,
                   MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV);
}

// A mount that is ready to be attached. Without the new mount interface it is
// only a loop device, which is mounted in the classic way.
struct Prepared {
    FileSystem type = FileSystem::squashfs;
    UniqueFd detached;
    LoopDevice loop;
};

Outcome remove_labels(int directory) {
    DirectoryReader reader(directory);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        if (is_image_label(entry.name) && unlinkat(directory, entry.name, 0) != 0) {
            return Outcome::failed("removing a label", run_directory, errno);
        }
    }
    return {};
}

// erofs takes a plain file, but only by name. The name is a link in root's own
// directory to the descriptor, so it is this file and no other; and as the
// kernel lists the mount under it, it tells later which image is mounted.
// Where the kernel cannot do this nothing is prepared.
Outcome prepare_file(const Image& image, Prepared& prepared) {
    const UniqueFd directory(open_absolute(run_directory, O_RDONLY | O_DIRECTORY));
    if (!directory.valid()) {
        return Outcome::failed(step, run_directory, errno);
    }
    const Outcome cleaned = remove_labels(directory.get());
    if (!cleaned.ok()) {
        return cleaned;
    }
    const ImageLabel label = image_label(image.status);
    if (symlinkat(DescriptorPath(image.fd.get()).text, directory.get(), label.text) != 0) {
        return {};
    }
    char source[128];
    snprintf(source, sizeof source, "%s/%s", run_directory, label.text);
    prepared.detached.reset(detached_mount(image.type, source));
    if (unlinkat(directory.get(), label.text, 0) != 0) {
        return Outcome::failed("removing a label", run_directory, errno);
    }
    return {};
}

Outcome prepare_loop(const Image& image, const char* path, Prepared& prepared) {
    const Outcome attached = attach_loop_device(image.fd.get(), stored_image, prepared.loop);
    if (!attached.ok()) {
        return attached;
    }
    prepared.detached.reset(detached_mount(image.type, prepared.loop.path));
    if (prepared.detached.valid() || errno == ENOSYS || errno == EPERM) {
        return {};
    }
    // What the kernel says to an image that it cannot make sense of.
    const int error = errno;
    for (const int refusal : {EINVAL, EIO, EUCLEAN, EBADMSG, EOPNOTSUPP}) {
        if (error == refusal) {
            return Outcome::failed(EX_DATAERR, step, path, error);
        }
    }
    return Outcome::failed(step, path, error);
}

Outcome prepare(const Image& image, const char* path, Prepared& prepared) {
    prepared.type = image.type;
    if (image.type == FileSystem::erofs) {
        const Outcome outcome = prepare_file(image, prepared);
        if (!outcome.ok() || prepared.detached.valid()) {
            return outcome;
        }
    }
    return prepare_loop(image, path, prepared);
}

// 0 or an errno.
int attach(const Prepared& prepared, int point) {
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

Outcome attach_checked(const Prepared& prepared, const struct stat& image, const Place& place) {
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
    if (!outcome.ok() || presence == Presence::current) {
        return outcome;
    }
    if (presence == Presence::foreign) {
        return refuse_foreign(place);
    }
    // An older image stays until the new one is known to be good.
    Prepared prepared;
    outcome = prepare(image, row.first, prepared);
    if (outcome.ok()) {
        outcome = unmount_ours(place, &image.status);
    }
    return outcome.ok() ? attach_checked(prepared, image.status, place) : outcome;
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
