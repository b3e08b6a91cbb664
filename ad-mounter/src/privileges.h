/**
 * Identifies the caller and drops privileges.
 */
#pragma once

#include "operations.h"
#include "outcome.h"

namespace ad_mounter {

/**
 * Sets all user and group IDs of a set-user-ID process to root's, so that its caller can no
 * longer signal it, and drops the caller's supplementary groups. `caller` becomes who that
 * was. Refuses when the process is not root's.
 */
Outcome become_root(Caller& caller);

/**
 * Sets no_new_privs, clears the capability bounding set, keeps only the capabilities(7) that the
 * command needs, restricts a command that does not mount to the paths of `request`, and installs
 * its system call filter. Irreversible.
 */
Outcome drop_privileges(const CommandSpec& command, const Operation& request);

}  // namespace ad_mounter
