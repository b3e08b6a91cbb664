#include "mount.h"

#include "directory_reader.h"
#include "image.h"
#include "loop_device.h"
#include "mounted.h"
#include "pinned_path.h"

#include <cerrno>
#include <cstdio>

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

int attach(int mount_fd, int point) {
    return move_mount(mount_fd, "", point, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) ==
                   0
               ? 0
               : errno;
}

int mount_source(FileSystem type, const char* source, int point) {
    const UniqueFd detached(detached_mount(type, source));
    if (detached.valid()) {
        return attach(detached.get(), point);
    }
    // No new mount interface: the classic one, on the pinned directory.
    if (errno != ENOSYS && errno != EPERM) {
        return errno;
    }
    return mount(source, DescriptorPath(point).text, file_system_name(type),
                 MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr) == 0
               ? 0
               : errno;
}

void remove_labels(int directory) {
    DirectoryReader reader(directory);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        if (is_image_label(entry.name)) {
            (void)unlinkat(directory, entry.name, 0);
        }
    }
}

// erofs takes a plain file, but only by name. The name is a link in root's own
// directory to the descriptor, so it is this file and no other; and as the
// kernel lists the mount under it, it tells later which image is mounted.
int mount_file(const Image& image, int point) {
    const UniqueFd directory(open_absolute(run_directory, O_RDONLY | O_DIRECTORY));
    if (!directory.valid()) {
        return errno;
    }
    remove_labels(directory.get());
    const ImageLabel label = image_label(image.status);
    if (symlinkat(DescriptorPath(image.fd.get()).text, directory.get(), label.text) != 0) {
        return errno;
    }
    char source[128];
    snprintf(source, sizeof source, "%s/%s", run_directory, label.text);
    const UniqueFd detached(detached_mount(image.type, source));
    const int error = detached.valid() ? 0 : errno;
    (void)unlinkat(directory.get(), label.text, 0);
    return error != 0 ? error : attach(detached.get(), point);
}

Outcome mount_through_loop(const Image& image, int point, const char* path) {
    LoopDevice loop;
    const Outcome attached = attach_loop_device(image.fd.get(), stored_image, loop);
    if (!attached.ok()) {
        return attached;
    }
    const int error = mount_source(image.type, loop.path, point);
    if (error == EINVAL || error == EIO || error == EUCLEAN) {
        return Outcome::failed(EX_DATAERR, step, path, error);
    }
    return error != 0 ? Outcome::failed(step, path, error) : Outcome();
}

Outcome mount_checked(const Image& image, const Place& place) {
    const UniqueFd point(
        open_beneath(place.directory.get(), place.name, O_PATH | O_DIRECTORY, Mounts::cross));
    if (!point.valid()) {
        return Outcome::failed("opening the mount point", place.path, errno);
    }
    if (image.type != FileSystem::erofs || mount_file(image, point.get()) != 0) {
        const Outcome mounted = mount_through_loop(image, point.get(), place.path);
        if (!mounted.ok()) {
            return mounted;
        }
    }
    Presence presence = Presence::nothing;
    Outcome outcome = look_at_mount_point(place, &image.status, presence);
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

// Unmounts until nothing of ours, or with `keep_current` the current image, is on top.
Outcome unmount_ours(const Place& place, const struct stat* image, bool keep_current,
                     Presence& presence) {
    bool first = true;
    for (;; first = false) {
        const Outcome looked = look_at_mount_point(place, image, presence);
        if (!looked.ok()) {
            return looked;
        }
        if (presence == Presence::foreign && (first || keep_current)) {
            return Outcome::refused(EX_NOPERM, "looking at the mount point", place.path,
                                    "something else is mounted there");
        }
        if (presence == Presence::nothing || presence == Presence::foreign ||
            (presence == Presence::current && keep_current)) {
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
    outcome = unmount_ours(place, &image.status, true, presence);
    if (!outcome.ok() || presence == Presence::current) {
        return outcome;
    }
    return mount_checked(image, place);
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
    Presence presence = Presence::nothing;
    return unmount_ours(place, stored ? &status : nullptr, false, presence);
}

}  // namespace ad_mounter
