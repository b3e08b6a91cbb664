#include "create.h"

#include "pinned_path.h"
#include "remove.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

struct Ownership {
    mode_t mode;
    uid_t user;
    gid_t group;
};

Ownership ownership_of(const Row* row, const Caller& caller) {
    if (row == nullptr) {
        return {0755, 0, 0};
    }
    if (row->owner == Owner::caller) {
        return {row->mode, caller.user, caller.group};
    }
    return {row->mode, 0, 0};
}

int give(int fd, const Ownership& ownership) {
    if (fchown(fd, ownership.user, ownership.group) != 0 || fchmod(fd, ownership.mode) != 0) {
        return errno;
    }
    return 0;
}

// Moves what was prepared into its place unless something is there already.
int put_in_place(int directory, const char* aside, const char* name) {
    if (renameat2(directory, aside, directory, name, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    struct stat status;
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return EEXIST;
    }
    return renameat(directory, aside, directory, name) == 0 ? 0 : errno;
}

// Puts the prepared thing in place and makes that durable; where another one
// came first, that one stays.
Outcome publish(int directory, const char* aside, const char* name, const char* path) {
    const int error = put_in_place(directory, aside, name);
    if (error != 0) {
        const Outcome cleaned = discard(directory, aside, path);
        if (error == EEXIST) {
            return cleaned;
        }
        return Outcome::failed(EX_CANTCREAT, "renaming into place", path, error);
    }
    if (fsync(directory) != 0) {
        return Outcome::failed("synchronising the directory", path, errno);
    }
    return {};
}

// Prepared aside with its owner and mode, so that a run that is cut short
// leaves no directory that its user cannot write to.
Outcome make_directory(int parent, const char* name, const char* path, const Ownership& ownership) {
    const SiblingName aside = aside_name(name);
    if (mkdirat(parent, aside.text, 0700) != 0) {
        return Outcome::failed(EX_CANTCREAT, "making the directory", path, errno);
    }
    int error = 0;
    {
        const UniqueFd made(open_beneath(parent, aside.text, O_RDONLY | O_DIRECTORY, Mounts::stay));
        error = made.valid() ? give(made.get(), ownership) : errno;
    }
    if (error != 0) {
        (void)unlinkat(parent, aside.text, AT_REMOVEDIR);
        return Outcome::failed("setting owner and mode", path, error);
    }
    return publish(parent, aside.text, name, path);
}

Outcome open_or_make(int parent, const char* name, const char* path, const Row* row,
                     const Caller& caller, UniqueFd& directory) {
    constexpr int flags = O_RDONLY | O_DIRECTORY;
    const SiblingName aside = aside_name(name);
    Outcome outcome = row != nullptr ? discard(parent, aside.text, path) : Outcome();
    if (!outcome.ok()) {
        return outcome;
    }
    directory.reset(open_beneath(parent, name, flags, Mounts::cross));
    if (!directory.valid() && errno == ENOENT) {
        outcome = discard(parent, aside.text, path);
        if (outcome.ok()) {
            outcome = make_directory(parent, name, path, ownership_of(row, caller));
        }
        if (!outcome.ok()) {
            return outcome;
        }
        directory.reset(open_beneath(parent, name, flags, Mounts::cross));
    }
    if (!directory.valid()) {
        return Outcome::failed("opening the directory", path, errno);
    }
    return {};
}

Outcome create_file(const Row& row, const Caller& caller) {
    char parent_path[PATH_MAX];
    const char* name = strrchr(row.target, '/') + 1;
    snprintf(parent_path, sizeof parent_path, "%.*s", static_cast<int>(name - row.target - 1),
             row.target);
    UniqueFd parent;
    Outcome outcome = ensure_directory(parent_path, caller, parent);
    if (!outcome.ok()) {
        return outcome;
    }
    const SiblingName aside = aside_name(name);
    outcome = discard(parent.get(), aside.text, row.target);
    if (!outcome.ok()) {
        return outcome;
    }
    struct stat status;
    if (fstatat(parent.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISREG(status.st_mode)) {
            return {};
        }
        return S_ISLNK(status.st_mode)
                   ? Outcome::failed("making the file", row.target, ELOOP)
                   : Outcome::refused(EX_CANTCREAT, "making the file", row.target,
                                      "something else than a file is there");
    }
    {
        const UniqueFd file(openat(parent.get(), aside.text,
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid()) {
            return Outcome::failed(EX_CANTCREAT, "making the file", row.target, errno);
        }
        int error = give(file.get(), ownership_of(&row, caller));
        if (error == 0 && fsync(file.get()) != 0) {
            error = errno;
        }
        if (error != 0) {
            (void)unlinkat(parent.get(), aside.text, 0);
            return Outcome::failed("setting owner and mode", row.target, error);
        }
    }
    return publish(parent.get(), aside.text, name, row.target);
}

}  // namespace

Outcome ensure_directory(const char* path, const Caller& caller, UniqueFd& directory) {
    UniqueFd current(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!current.valid()) {
        return Outcome::failed("opening the directory", "/", errno);
    }
    char prefix[PATH_MAX];
    const char* begin = path;
    while (*begin == '/') {
        ++begin;
        const char* end = strchrnul(begin, '/');
        snprintf(prefix, sizeof prefix, "%.*s", static_cast<int>(end - path), path);
        const char* name = prefix + (begin - path);
        const Row* row = directory_row(prefix);
        UniqueFd next;
        const Outcome outcome = open_or_make(
            current.get(), name, row != nullptr ? row->target : path, row, caller, next);
        if (!outcome.ok()) {
            return outcome;
        }
        current = static_cast<UniqueFd&&>(next);
        begin = end;
    }
    directory = static_cast<UniqueFd&&>(current);
    return {};
}

Outcome create(const Row& row, const Caller& caller) {
    if (row.kind == Kind::file) {
        return create_file(row, caller);
    }
    UniqueFd directory;
    return ensure_directory(row.target, caller, directory);
}

}  // namespace ad_mounter
