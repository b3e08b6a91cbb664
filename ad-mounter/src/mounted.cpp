#include "mounted.h"

#include "loop_device.h"
#include "mount_list.h"
#include "table.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "looking at the mount point";
constexpr const char* label_prefix = "image-";

struct PointStatus {
    dev_t device = 0;
    uint64_t mount_id = 0;
    bool mount_root = false;
};

int point_status(int point, const Place& place, PointStatus& status) {
    struct statx extended;
    if (statx(point, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &extended) != 0) {
        return errno;
    }
    status.device = makedev(extended.stx_dev_major, extended.stx_dev_minor);
    status.mount_id = extended.stx_mnt_id;
    if ((extended.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
        status.mount_root = (extended.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
        return 0;
    }
    // An older kernel does not say; what we mount is always another device.
    struct stat parent;
    if (fstat(place.directory.get(), &parent) != 0) {
        return errno;
    }
    status.mount_root = parent.st_dev != status.device;
    return 0;
}

// How the image behind a mount relates to the stored one.
Presence compare_backing(const PointStatus& status, const struct stat* image) {
    LoopBacking backing;
    if (loop_backing(status.device, backing)) {
        if (image != nullptr && backing.device == image->st_dev && backing.inode == image->st_ino) {
            return Presence::current;
        }
        return strcmp(backing.file_name, stored_image) == 0 ? Presence::stale : Presence::foreign;
    }
    MountList mounts;
    MountEntry entry;
    while (mounts.next(entry)) {
        const char* name = entry.source + strlen(run_directory) + 1;
        if (entry.id != status.mount_id || strlen(entry.source) <= strlen(run_directory) ||
            strncmp(entry.source, run_directory, strlen(run_directory)) != 0 ||
            !is_image_label(name)) {
            continue;
        }
        return image != nullptr && strcmp(name, image_label(*image).text) == 0 ? Presence::current
                                                                               : Presence::stale;
    }
    return Presence::foreign;
}

}  // namespace

Outcome look_at_mount_point(const Place& place, const struct stat* image, Presence& presence) {
    presence = Presence::nothing;
    const UniqueFd point(
        open_beneath(place.directory.get(), place.name, O_PATH | O_DIRECTORY, Mounts::cross));
    if (!point.valid()) {
        return errno == ENOENT ? Outcome() : Outcome::failed(step, place.path, errno);
    }
    PointStatus status;
    const int error = point_status(point.get(), place, status);
    if (error != 0) {
        return Outcome::failed(step, place.path, error);
    }
    if (!status.mount_root) {
        return {};
    }
    struct statfs file_system;
    struct statvfs flags;
    if (fstatfs(point.get(), &file_system) != 0 || fstatvfs(point.get(), &flags) != 0) {
        return Outcome::failed(step, place.path, errno);
    }
    if ((file_system.f_type != SQUASHFS_MAGIC && file_system.f_type != EROFS_SUPER_MAGIC_V1) ||
        (flags.f_flag & ST_RDONLY) == 0) {
        presence = Presence::foreign;
        return {};
    }
    presence = compare_backing(status, image);
    constexpr unsigned long wanted = ST_RDONLY | ST_NOSUID | ST_NODEV;
    if (presence == Presence::current && (flags.f_flag & wanted) != wanted) {
        presence = Presence::stale;
    }
    return {};
}

bool mounted_below(const char* path) {
    MountList mounts;
    MountEntry entry;
    const size_t length = strlen(path);
    while (mounts.next(entry)) {
        if (strncmp(entry.point, path, length) == 0 &&
            (entry.point[length] == '\0' || entry.point[length] == '/')) {
            return true;
        }
    }
    return false;
}

ImageLabel image_label(const struct stat& image) {
    ImageLabel label;
    snprintf(label.text, sizeof label.text, "%s%u:%u-%llu", label_prefix, major(image.st_dev),
             minor(image.st_dev), static_cast<unsigned long long>(image.st_ino));
    return label;
}

bool is_image_label(const char* name) {
    return strncmp(name, label_prefix, strlen(label_prefix)) == 0;
}

}  // namespace ad_mounter
