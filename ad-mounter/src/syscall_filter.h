/**
 * Limits the process to the system calls of its command.
 */
#pragma once

#include "operations.h"
#include "outcome.h"

namespace ad_mounter {

/**
 * Installs the seccomp(2) filter of `verb`, which must be one of those with operations. Any other
 * system call, and one with arguments that the verb never passes, kills the process; so does
 * any call of another architecture. Needs no_new_privs. Irreversible.
 */
Outcome install_syscall_filter(Verb verb);

}  // namespace ad_mounter
