/**
 * The file or directory that an operation changes: its directory, held open, and its name.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"

#include <climits>

#include <sys/stat.h>
#include <sys/types.h>

namespace ad_mounter {

struct Target {
    base::UniqueFd directory;  ///< open for reading, so that it can be synced
    const char* name = "";     ///< the last component of `path`
    const char* path = "";     ///< not owned
};

/** Copies the path of the directory that holds `path`, absolute and below "/", to `parent`. */
void parent_path(const char* path, char (&parent)[PATH_MAX]);

/**
 * Opens the directory that holds `path`, absolute and below "/", which must outlive `target`, as
 * open_trusted_directory() does.
 */
Outcome open_parent(const char* path, Target& target, int refusal = EX_NOPERM);

/** Writes the entries of an open directory to its file system. Returns 0 or an errno value. */
int sync_directory(int directory);

/** Makes what has changed in the target's directory durable. */
Outcome sync_parent(const Target& target);

/** lstat(2) on the target. Returns 0 or an errno value. */
int target_status(const Target& target, struct stat& status);

/** Success, or a refusal because the target is a symbolic link. */
Outcome refuse_symbolic_link(const Target& target);

/** A hidden name in the same directory as another one. */
struct SiblingName {
    char text[NAME_MAX + 1];
};

/** Where something new is built before it is renamed to `name`. */
SiblingName temporary_name(const char* name);

/** Where what was at `name` waits for its removal. */
SiblingName retired_name(const char* name);

/** What to do with something that has appeared at the target in the meantime. */
enum class Existing : unsigned char { replace, keep };

/**
 * Renames `from` to `to` in one directory. Returns 0 or an errno value; EEXIST when `to`
 * exists and is kept.
 */
int rename_within(int directory, const char* from, const char* to, Existing existing);

/** Mode and owner of something new. */
struct Ownership {
    mode_t mode;
    uid_t user;
    gid_t group;
};

/** Sets owner and mode of an open file. Returns 0 or an errno value. */
int set_ownership(int fd, const Ownership& ownership);

}  // namespace ad_mounter
