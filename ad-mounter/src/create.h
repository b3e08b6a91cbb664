// Makes the directories and the file of the table.
#ifndef AD_MOUNTER_CREATE_H
#define AD_MOUNTER_CREATE_H

#include "messages.h"
#include "table.h"
#include "unique_fd.h"

#include <sys/types.h>

namespace ad_mounter {

/** Who called: the owner of what the table gives to the caller. */
struct Caller {
    uid_t user;
    gid_t group;
};

/**
 * Opens the directory `path`, making it and its parents where they are missing:
 * mode and owner are those of the table's row, else root's and 0755. What
 * exists stays as it is.
 */
Outcome ensure_directory(const char* path, const Caller& caller, UniqueFd& directory);

/** Does one --create row. */
Outcome create(const Row& row, const Caller& caller);

}  // namespace ad_mounter

#endif
