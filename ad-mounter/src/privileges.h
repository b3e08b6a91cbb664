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
 * Sets no_new_privs, keeps only the capabilities(7) that the command needs and installs a
 * seccomp(2) filter that kills the process when it executes a program, opens a socket or
 * traces a process. Irreversible.
 */
Outcome drop_privileges(const CommandSpec& command);

}  // namespace ad_mounter
