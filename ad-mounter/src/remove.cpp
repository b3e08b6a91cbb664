#include "keys.h"
#include "mount_state.h"
#include "removal.h"
#include "target.h"
#include "verbs.h"
#include "version_floor.h"

#include <cerrno>
#include <cstring>

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

// What was stored must not be forgotten with the image. Without trusted keys no image counts.
Outcome remember_version(const Target& image) {
    Keys keys;
    const Outcome loaded = load_keys(keys);
    if (!loaded.ok() && loaded.status() != EX_DATAERR) {
        return loaded;
    }
    keys.count = loaded.ok() ? keys.count : 0;
    VersionFloor floor;
    TRY(floor.read(image, keys));
    return floor.raise_to_stored();
}

Outcome remove_existing(const Operation& operation, const Target& target, mode_t mode) {
    if (S_ISLNK(mode)) {
        return Outcome::failed("remove", target.path, ELOOP);
    }
    if (operation.kind == Kind::tree) {
        return S_ISDIR(mode) ? remove_tree(target)
                             : Outcome::failed("remove", target.path, ENOTDIR);
    }
    if (strcmp(target.path, stored_image) == 0) {
        TRY(remember_version(target));
    }
    return unlinkat(target.directory.get(), target.name, 0) == 0 || errno == ENOENT
               ? Outcome()
               : Outcome::failed("remove", target.path, errno);
}

}  // namespace

Outcome remove_target(const Operation& operation) {
    Target target;
    const Outcome opened = open_parent(operation.target, target);
    if (!opened.ok()) {
        return opened.status() == EX_NOINPUT ? Outcome() : opened;
    }
    for (const SiblingName& leftover : {temporary_name(target.name), retired_name(target.name)}) {
        TRY(remove_recursively(target.directory.get(), leftover.text, target.path));
    }
    struct stat status;
    const int error = target_status(target, status);
    if (error != 0 && error != ENOENT) {
        return Outcome::failed("stat", target.path, error);
    }
    if (error == 0) {
        TRY(remove_existing(operation, target, status.st_mode));
    }
    // Also when there was nothing to do: a run that was killed may have removed it.
    return sync_parent(target);
}

}  // namespace ad_mounter
