#include "prepared_mount.h"

#include "directory_reader.h"
#include "mounted.h"
#include "pinned_path.h"
#include "table.h"

#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include <fcntl.h>
#include <sys/mount.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "mounting";

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
Outcome prepare_file(const ImageFile& image, PreparedMount& prepared) {
    const UniqueFd directory(open_absolute(run_directory, O_RDONLY | O_DIRECTORY));
    if (!directory.valid()) {
        return Outcome::failed(step, run_directory, errno);
    }
    const Outcome cleaned = remove_labels(directory.get());
    if (!cleaned.ok()) {
        return cleaned;
    }
    const ImageLabel label = image_label(image.status);
    if (symlinkat(DescriptorPath(image.fd).text, directory.get(), label.text) != 0) {
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

Outcome prepare_loop(const ImageFile& image, const char* path, PreparedMount& prepared) {
    const Outcome attached = attach_loop_device(image.fd, stored_image, prepared.loop);
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

}  // namespace

DescriptorPath::DescriptorPath(int fd) { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }

Outcome prepare_mount(const ImageFile& image, const char* path, PreparedMount& prepared) {
    prepared.type = image.type;
    if (image.type == FileSystem::erofs) {
        const Outcome outcome = prepare_file(image, prepared);
        if (!outcome.ok() || prepared.detached.valid()) {
            return outcome;
        }
    }
    return prepare_loop(image, path, prepared);
}

}  // namespace ad_mounter
