#include "prepared_mount.h"

#include "directory_reader.h"
#include "mount_state.h"
#include "operations.h"
#include "path.h"

#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Returns a descriptor of a mount that is not attached, or -1 with errno.
int create_detached_mount(FileSystem type, const char* source) {
    const base::UniqueFd context(fsopen(file_system_name(type), FSOPEN_CLOEXEC));
    if (!context || fsconfig(context.get(), FSCONFIG_SET_STRING, "source", source, 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_SET_FLAG, "ro", nullptr, 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
        return -1;
    }
    return fsmount(context.get(), FSMOUNT_CLOEXEC,
                   MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV);
}

int mount_image_at(int point, FileSystem type, const char* source) {
    return mount(source, DescriptorPath(point).text, file_system_name(type),
                 MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr);
}

// Before Linux 5.2: mounts in root's own directory and detaches the mount at once; its
// descriptor keeps it. Returns that, or -1 with errno.
int mount_and_detach(FileSystem type, const char* source) {
    constexpr const char* name = "image";
    const base::UniqueFd directory(open_path(run_directory, O_RDONLY | O_DIRECTORY));
    if (!directory || fchdir(directory.get()) != 0) {
        return -1;
    }
    // What a killed run has left.
    while (umount2(name, MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    }
    if (mkdirat(directory.get(), name, 0700) != 0 && errno != EEXIST) {
        return -1;
    }
    const base::UniqueFd point(
        open_entry(directory.get(), name, O_PATH | O_DIRECTORY, Mounts::stay));
    base::UniqueFd top;
    if (point && mount_image_at(point.get(), type, source) == 0) {
        top.reset(open_entry(directory.get(), name, O_PATH | O_DIRECTORY, Mounts::cross));
        if (umount2(name, MNT_DETACH | UMOUNT_NOFOLLOW) != 0) {
            top.reset();
        }
    }
    const int error = errno;
    (void)unlinkat(directory.get(), name, AT_REMOVEDIR);
    errno = error;
    return top.release();
}

// Removes what killed runs left behind.
Outcome remove_labels(int directory) {
    DirectoryReader reader(directory);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        if (is_image_label(entry.name) && unlinkat(directory, entry.name, 0) != 0) {
            return Outcome::failed("remove mount label in", run_directory, errno);
        }
    }
    return {};
}

// erofs mounts plain files, but only by name. The name is a symbolic link to the descriptor in
// root's own directory, so that it cannot lead to another file; the kernel shows it as the
// source of the mount, which identifies the image later. Older kernels do not mount files:
// then `prepared` stays as it is.
Outcome prepare_from_file(const ImageFile& image, PreparedMount& prepared) {
    const base::UniqueFd directory(open_path(run_directory, O_RDONLY | O_DIRECTORY));
    if (!directory) {
        return Outcome::failed("open", run_directory, errno);
    }
    TRY(remove_labels(directory.get()));
    const ImageLabel label = image_label(image.status);
    if (symlinkat(DescriptorPath(image.fd).text, directory.get(), label.text) != 0) {
        return {};
    }
    char source[128];
    snprintf(source, sizeof source, "%s/%s", run_directory, label.text);
    prepared.detached.reset(create_detached_mount(image.type, source));
    return unlinkat(directory.get(), label.text, 0) == 0
               ? Outcome()
               : Outcome::failed("remove mount label in", run_directory, errno);
}

Outcome prepare_from_loop_device(const ImageFile& image, const char* path,
                                 PreparedMount& prepared) {
    TRY(attach_loop_device(image.fd, stored_image, prepared.loop));
    prepared.detached.reset(create_detached_mount(image.type, prepared.loop.path));
    if (!prepared.detached && errno == ENOSYS) {
        prepared.movable = false;
        prepared.detached.reset(mount_and_detach(image.type, prepared.loop.path));
    }
    if (prepared.detached) {
        return {};
    }
    const int error = errno;
    // How file systems report damage.
    for (const int damaged : {EINVAL, EIO, EUCLEAN, EBADMSG, EOPNOTSUPP}) {
        if (error == damaged) {
            return Outcome::failed(EX_DATAERR, "mount", path, error);
        }
    }
    return Outcome::failed("mount", path, error);
}

}  // namespace

Outcome prepare_mount(const ImageFile& image, const char* path, PreparedMount& prepared) {
    prepared.type = image.type;
    if (image.type == FileSystem::erofs) {
        TRY(prepare_from_file(image, prepared));
    }
    return prepared.detached ? Outcome() : prepare_from_loop_device(image, path, prepared);
}

int attach_mount(const PreparedMount& prepared, int point) {
    const int result = prepared.movable
                           ? move_mount(prepared.detached.get(), "", point, "",
                                        MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH)
                           : mount_image_at(point, prepared.type, prepared.loop.path);
    return result == 0 ? 0 : errno;
}

}  // namespace ad_mounter
