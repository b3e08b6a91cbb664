#include "directories.h"
#include "mounted_image.h"
#include "path.h"
#include "removal.h"
#include "tree_copy.h"
#include "tree_scan.h"
#include "verbs.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

struct Source {
    base::UniqueFd directory;
    mode_t mode = 0;
};

Outcome open_source(const char* path, Source& source) {
    TRY(open_mounted(path, O_RDONLY | O_DIRECTORY, source.directory));
    struct stat status;
    if (fstat(source.directory.get(), &status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    source.mode = status.st_mode;
    return {};
}

// Rejects a tree that breaks the rules or does not fit.
Outcome check_source(const Source& source, const Target& target) {
    struct statvfs room;
    if (fstatvfs(target.directory.get(), &room) != 0) {
        return Outcome::failed("check free space for", target.path, errno);
    }
    TreeSize size;
    TRY(scan_tree(source.directory.get(), room.f_frsize, size));
    // File systems that do not count blocks or inodes report none at all.
    if ((room.f_blocks != 0 && size.blocks > room.f_bavail) ||
        (room.f_files != 0 && size.inodes > room.f_favail)) {
        return Outcome::failed("check free space for", target.path, ENOSPC);
    }
    // The scan has read the directory to its end.
    return lseek(source.directory.get(), 0, SEEK_SET) == 0
               ? Outcome()
               : Outcome::failed("read directory", target.path, errno);
}

Outcome check_destination(const Target& target) {
    TRY(refuse_symbolic_link(target));
    struct stat status;
    const int error = target_status(target, status);
    if (error != 0) {
        return error == ENOENT ? Outcome() : Outcome::failed("stat", target.path, error);
    }
    return S_ISDIR(status.st_mode) ? Outcome() : Outcome::failed("replace", target.path, ENOTDIR);
}

// Creates the new tree under its temporary name and syncs it.
Outcome build_tree(const Source& source, const Target& target, const char* temporary) {
    if (mkdirat(target.directory.get(), temporary, source.mode & 0755) != 0) {
        return Outcome::failed("create temporary directory for", target.path, errno);
    }
    const base::UniqueFd tree(
        open_entry(target.directory.get(), temporary, O_RDONLY | O_DIRECTORY, Mounts::stay));
    if (!tree) {
        return Outcome::failed("open temporary directory for", target.path, errno);
    }
    TRY(copy_contents(source.directory.get(), tree.get()));
    const int error = set_copied_mode(tree.get(), source.mode);
    if (error != 0) {
        return Outcome::failed("set mode of", target.path, error);
    }
    return syncfs(tree.get()) == 0 ? Outcome() : Outcome::failed("sync", target.path, errno);
}

// Swaps the new tree with the old one, which ends up under the temporary or the retired name.
// Returns 0 or an errno value.
int swap_trees(const Target& target, const char* temporary) {
    const int directory = target.directory.get();
    if (renameat2(directory, temporary, directory, target.name, RENAME_EXCHANGE) == 0) {
        return 0;
    }
    if (errno != ENOENT && errno != EINVAL && errno != ENOSYS && errno != EXDEV) {
        return errno;
    }
    // Without RENAME_EXCHANGE there is a moment without a tree.
    const SiblingName retired = retired_name(target.name);
    const int error = rename_within(directory, target.name, retired.text, Existing::replace);
    // An overlay does not rename directories of its lower layer.
    const bool removed =
        error == EXDEV && remove_recursively(directory, target.name, target.path).ok();
    return error == 0 || error == ENOENT || removed
               ? rename_within(directory, temporary, target.name, Existing::replace)
               : error;
}

Outcome remove_siblings(const Target& target) {
    for (const SiblingName& sibling : {temporary_name(target.name), retired_name(target.name)}) {
        TRY(remove_recursively(target.directory.get(), sibling.text, target.path));
    }
    return {};
}

}  // namespace

Outcome copy_tree(const Operation& operation, const Caller& caller) {
    Source source;
    TRY(open_source(operation.first, source));
    Target target;
    TRY(ensure_parent(operation, caller, target));
    TRY(remove_siblings(target));
    TRY(check_destination(target));
    TRY(check_source(source, target));
    const SiblingName temporary = temporary_name(target.name);
    Outcome outcome = build_tree(source, target, temporary.text);
    if (outcome.ok()) {
        const int error = swap_trees(target, temporary.text);
        if (error != 0) {
            outcome = Outcome::failed("rename temporary directory to", target.path, error);
        }
    }
    if (!outcome.ok()) {
        (void)remove_recursively(target.directory.get(), temporary.text, target.path);
        return outcome;
    }
    TRY(sync_parent(target));
    return remove_siblings(target);
}

}  // namespace ad_mounter
