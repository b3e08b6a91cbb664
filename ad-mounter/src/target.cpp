#include "target.h"

#include "trusted_path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace ad_mounter {

void parent_path(const char* path, char (&parent)[PATH_MAX]) {
    snprintf(parent, sizeof parent, "%.*s", static_cast<int>(strrchr(path, '/') - path), path);
}

Outcome open_parent(const char* path, Target& target, int refusal) {
    char parent[PATH_MAX];
    parent_path(path, parent);
    target.path = path;
    target.name = strrchr(path, '/') + 1;
    return open_trusted_directory(parent, path, target.directory, refusal);
}

int sync_directory(int directory) {
    // File systems that are never written to refuse it: nothing of theirs can be lost.
    return fsync(directory) == 0 || errno == EINVAL || errno == EROFS ? 0 : errno;
}

Outcome sync_parent(const Target& target) {
    const int error = sync_directory(target.directory.get());
    return error == 0 ? Outcome() : Outcome::failed("sync directory of", target.path, error);
}

int target_status(const Target& target, struct stat& status) {
    return fstatat(target.directory.get(), target.name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0
                                                                                           : errno;
}

Outcome refuse_symbolic_link(const Target& target) {
    struct stat status;
    return target_status(target, status) == 0 && S_ISLNK(status.st_mode)
               ? Outcome::failed("write", target.path, ELOOP)
               : Outcome();
}

SiblingName temporary_name(const char* name) {
    SiblingName sibling;
    snprintf(sibling.text, sizeof sibling.text, ".%s.ad-mounter", name);
    return sibling;
}

SiblingName retired_name(const char* name) {
    SiblingName sibling;
    snprintf(sibling.text, sizeof sibling.text, ".%s.ad-mounter-old", name);
    return sibling;
}

int rename_within(int directory, const char* from, const char* to, Existing existing) {
    if (existing == Existing::keep) {
        if (renameat2(directory, from, directory, to, RENAME_NOREPLACE) == 0) {
            return 0;
        }
        // Not every file system has RENAME_NOREPLACE.
        if (errno != EINVAL && errno != ENOSYS) {
            return errno;
        }
        struct stat status;
        if (fstatat(directory, to, &status, AT_SYMLINK_NOFOLLOW) == 0) {
            return EEXIST;
        }
    }
    return renameat(directory, from, directory, to) == 0 ? 0 : errno;
}

int set_ownership(int fd, const Ownership& ownership) {
    return fchown(fd, ownership.user, ownership.group) == 0 && fchmod(fd, ownership.mode) == 0
               ? 0
               : errno;
}

}  // namespace ad_mounter
