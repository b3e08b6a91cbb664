#include "mount_state.h"

#include "loop_device.h"
#include "mount_list.h"
#include "operations.h"
#include "path.h"

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

constexpr const char* step = "inspect mount point";
constexpr const char* label_prefix = "image-";

bool is_current(const LoopBacking& backing, const struct stat* image) {
    return image != nullptr && backing.device == image->st_dev && backing.inode == image->st_ino;
}

// The label that the mount with this ID has as its source. False when it has none.
bool find_label(unsigned long id, ImageLabel& label) {
    const size_t length = strlen(run_directory);
    MountList mounts;
    MountEntry entry;
    while (mounts.next(entry)) {
        if (entry.id == id && strncmp(entry.source, run_directory, length) == 0 &&
            entry.source[length] == '/' && is_image_label(entry.source + length + 1)) {
            snprintf(label.text, sizeof label.text, "%s", entry.source + length + 1);
            return true;
        }
    }
    return false;
}

// How the image behind the mount of `point` relates to the stored one.
MountState compare_backing(int point, dev_t device, const struct stat* image) {
    LoopBacking backing;
    if (query_loop_device(device, backing)) {
        if (is_current(backing, image)) {
            return MountState::current;
        }
        return strcmp(backing.file_name, stored_image) == 0 ? MountState::stale
                                                            : MountState::foreign;
    }
    ImageLabel label;
    if (!find_label(mount_id(point), label)) {
        return MountState::foreign;
    }
    return image != nullptr && strcmp(label.text, image_label(*image).text) == 0
               ? MountState::current
               : MountState::stale;
}

}  // namespace

Outcome inspect_mount_point(const Target& target, const struct stat* image, MountState& state) {
    base::UniqueFd top;
    return inspect_mount_point(target, image, state, top);
}

Outcome inspect_mount_point(const Target& target, const struct stat* image, MountState& state,
                            base::UniqueFd& point) {
    state = MountState::nothing;
    point.reset(
        open_entry(target.directory.get(), target.name, O_PATH | O_DIRECTORY, Mounts::cross));
    if (!point) {
        return errno == ENOENT ? Outcome() : Outcome::failed(step, target.path, errno);
    }
    const unsigned long point_id = mount_id(point.get());
    const unsigned long parent_id = point_id != 0 ? mount_id(target.directory.get()) : 0;
    if (parent_id == 0) {
        return Outcome::failed(step, target.path, errno);
    }
    if (point_id == parent_id) {
        return {};
    }
    struct stat status;
    struct statfs file_system;
    struct statvfs flags;
    if (fstat(point.get(), &status) != 0 || fstatfs(point.get(), &file_system) != 0 ||
        fstatvfs(point.get(), &flags) != 0) {
        return Outcome::failed(step, target.path, errno);
    }
    // Signed on 32-bit ARM.
    const auto type = static_cast<unsigned>(file_system.f_type);
    const bool may_be_ours =
        (type == SQUASHFS_MAGIC || type == EROFS_SUPER_MAGIC_V1) && (flags.f_flag & ST_RDONLY) != 0;
    state = may_be_ours ? compare_backing(point.get(), status.st_dev, image) : MountState::foreign;
    constexpr unsigned long required = ST_RDONLY | ST_NOSUID | ST_NODEV;
    if (state == MountState::current && (flags.f_flag & required) != required) {
        state = MountState::stale;
    }
    return {};
}

bool is_mounted_below(const char* path) {
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
