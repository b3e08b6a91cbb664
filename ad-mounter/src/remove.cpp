#include "mount_state.h"
#include "removal.h"
#include "target.h"
#include "verbs.h"

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Renamed first, so that a killed run never leaves part of a tree under its old name.
Outcome remove_tree(const Target& target) {
    if (is_mounted_below(target.path)) {
        return Outcome::refused(EX_TEMPFAIL, "remove", target.path,
                                "something is mounted on it or below");
    }
    const int directory = target.directory.get();
    const SiblingName retired = retired_name(target.name);
    const int error = rename_within(directory, target.name, retired.text, Existing::replace);
    if (error == 0) {
        return remove_recursively(directory, retired.text, target.path);
    }
    // An overlay does not rename directories of its lower layer.
    return error == EXDEV ? remove_recursively(directory, target.name, target.path)
                          : Outcome::failed("rename", target.path, error);
}

}  // namespace

Outcome remove_target(const Operation& operation) {
    Target target;
    int error = open_parent(operation.target, target);
    if (error != 0) {
        return error == ENOENT ? Outcome()
                               : Outcome::failed("open directory of", operation.target, error);
    }
    const int directory = target.directory.get();
    for (const SiblingName& leftover : {temporary_name(target.name), retired_name(target.name)}) {
        TRY(remove_recursively(directory, leftover.text, target.path));
    }
    struct stat status;
    error = target_status(target, status);
    if (error != 0) {
        return error == ENOENT ? Outcome() : Outcome::failed("stat", target.path, error);
    }
    if (S_ISLNK(status.st_mode)) {
        return Outcome::failed("remove", target.path, ELOOP);
    }
    if (operation.kind == Kind::tree) {
        return S_ISDIR(status.st_mode) ? remove_tree(target)
                                       : Outcome::failed("remove", target.path, ENOTDIR);
    }
    return unlinkat(directory, target.name, 0) == 0 || errno == ENOENT
               ? Outcome()
               : Outcome::failed("remove", target.path, errno);
}

}  // namespace ad_mounter
