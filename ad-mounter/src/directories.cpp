#include "directories.h"

#include "path.h"
#include "removal.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Owner and mode are set before the directory gets its name, so that a killed run does not
// leave one that its user cannot write to.
Outcome create_directory(const Component& component, const char* path, const Ownership& owner) {
    const SiblingName temporary = temporary_name(component.name);
    if (mkdirat(component.parent, temporary.text, 0700) != 0) {
        return Outcome::failed("create directory", path, errno);
    }
    const char* step = "set owner and mode of";
    const base::UniqueFd created(
        open_entry(component.parent, temporary.text, O_RDONLY | O_DIRECTORY, Mounts::stay));
    int error = created ? set_ownership(created.get(), owner) : errno;
    if (error == 0) {
        step = "rename temporary directory to";
        error = rename_within(component.parent, temporary.text, component.name, Existing::keep);
    }
    if (error != 0) {
        const Outcome removed = remove_recursively(component.parent, temporary.text, path);
        return error == EEXIST ? removed : Outcome::failed(step, path, error);
    }
    return fsync(component.parent) == 0 ? Outcome()
                                        : Outcome::failed("sync directory of", path, errno);
}

int open_directory(const Component& component) {
    return open_entry(component.parent, component.name, O_RDONLY | O_DIRECTORY, Mounts::cross);
}

Outcome open_or_create(const Component& component, const char* path, const Caller& caller,
                       base::UniqueFd& directory) {
    const Operation* operation = find_directory(component.path);
    path = operation != nullptr ? operation->target : path;
    directory.reset(open_directory(component));
    const bool missing = !directory && errno == ENOENT;
    // A killed run leaves its temporary beside a directory that another run has created since.
    if (missing || (directory && operation != nullptr)) {
        const SiblingName temporary = temporary_name(component.name);
        TRY(remove_recursively(component.parent, temporary.text, path));
    }
    if (missing) {
        TRY(create_directory(component, path, ownership_of(operation, caller)));
        directory.reset(open_directory(component));
    }
    return directory ? Outcome() : Outcome::failed("open directory", path, errno);
}

// `shown` is the path for error messages, which outlives `path`.
Outcome ensure(const char* path, const char* shown, const Caller& caller,
               base::UniqueFd& directory) {
    Outcome outcome;
    directory.reset(walk_path(path, [&](const Component& component) {
        base::UniqueFd opened;
        outcome = open_or_create(component, shown, caller, opened);
        return outcome.ok() ? opened.release() : -1;
    }));
    return outcome.ok() && !directory ? Outcome::failed("open directory", shown, errno) : outcome;
}

}  // namespace

Ownership ownership_of(const Operation* operation, const Caller& caller) {
    if (operation == nullptr) {
        return {0755, 0, 0};
    }
    return operation->owner == Owner::caller ? Ownership{operation->mode, caller.user, caller.group}
                                             : Ownership{operation->mode, 0, 0};
}

Outcome ensure_directory(const char* path, const Caller& caller, base::UniqueFd& directory) {
    return ensure(path, path, caller, directory);
}

Outcome ensure_parent(const Operation& operation, const Caller& caller, Target& target) {
    char parent[PATH_MAX];
    parent_path(operation.target, parent);
    target.path = operation.target;
    target.name = strrchr(operation.target, '/') + 1;
    return ensure(parent, operation.target, caller, target.directory);
}

}  // namespace ad_mounter
