#include "directories.h"

#include "removal.h"
#include "trusted_path.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Nobody else's until the owner and mode are set that it gets.
constexpr mode_t new_directory_mode = 0700;

// Opens the directory that this process has just made, and no other one.
int open_created(int parent, const char* name) {
    base::UniqueFd created(open_entry(parent, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
    struct stat status;
    if (!created || fstat(created.get(), &status) != 0) {
        return -1;
    }
    if (status.st_uid != 0 || (status.st_mode & 0777) != new_directory_mode ||
        status.st_nlink > 2) {
        errno = EPERM;
        return -1;
    }
    return created.release();
}

// Owner and mode are set before the directory gets its name, so that a killed run does not
// leave one that its user cannot write to. `directory` is what has been created; it stays empty
// when something else has got the name meanwhile.
Outcome create_directory(const Component& component, const char* path, const Ownership& owner,
                         base::UniqueFd& directory) {
    const SiblingName temporary = temporary_name(component.name);
    if (mkdirat(component.parent, temporary.text, new_directory_mode) != 0) {
        return Outcome::failed("create directory", path, errno);
    }
    base::UniqueFd created(open_created(component.parent, temporary.text));
    if (!created) {
        return Outcome::failed("open new directory", path, errno);
    }
    const char* step = "set owner and mode of";
    int error = set_ownership(created.get(), owner);
    if (error == 0) {
        step = "rename temporary directory to";
        error = rename_within(component.parent, temporary.text, component.name, Existing::keep);
    }
    if (error != 0) {
        const Outcome removed = remove_recursively(component.parent, temporary.text, path);
        return error == EEXIST ? removed : Outcome::failed(step, path, error);
    }
    directory = std::move(created);
    return {};
}

int open_directory(const Component& component) {
    return open_entry(component.parent, component.name, O_RDONLY | O_DIRECTORY, Mounts::cross);
}

Outcome open_or_create(const Component& component, const char* path, const Caller& caller,
                       base::UniqueFd& directory, bool& missing) {
    const Operation* operation = find_directory(component.path);
    directory.reset(open_directory(component));
    missing = !directory && errno == ENOENT;
    // A killed run leaves its temporary beside a directory that another run has created since.
    if (missing || (directory && operation != nullptr)) {
        const SiblingName temporary = temporary_name(component.name);
        TRY(remove_recursively(component.parent, temporary.text, path));
    }
    if (missing) {
        TRY(create_directory(component, path, ownership_of(operation, caller), directory));
        if (!directory) {
            directory.reset(open_directory(component));
        }
    }
    return directory ? check_component(component, directory.get())
                     : Outcome::failed("open directory", path, errno);
}

// `shown` is the path for error messages, which outlives `path`.
Outcome ensure(const char* path, const char* shown, const Caller& caller, Found found,
               base::UniqueFd& directory) {
    Outcome outcome;
    directory.reset(walk_path(path, [&](const Component& component) {
        const Operation* operation = find_directory(component.path);
        const char* reported = operation != nullptr ? operation->target : shown;
        base::UniqueFd opened;
        bool created = false;
        outcome = open_or_create(component, reported, caller, opened, created);
        if (outcome.ok() && component.parent != AT_FDCWD && (created || found == Found::sync)) {
            const int error = sync_directory(component.parent);
            outcome =
                error == 0 ? Outcome() : Outcome::failed("sync directory of", reported, error);
        }
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
    return ensure(path, path, caller, Found::sync, directory);
}

Outcome ensure_parent(const Operation& operation, const Caller& caller, Target& target,
                      Found found) {
    char parent[PATH_MAX];
    parent_path(operation.target, parent);
    target.path = operation.target;
    target.name = strrchr(operation.target, '/') + 1;
    return ensure(parent, operation.target, caller, found, target.directory);
}

}  // namespace ad_mounter
