/**
 * Makes the process independent of how it was started.
 */
#pragma once

#include "outcome.h"

namespace ad_mounter {

/**
 * Replaces the caller's resource limits, see getrlimit(2). Where CAP_SYS_RESOURCE is missing, a
 * limit goes no higher than the caller's hard one. Uses little stack: the caller's limit holds
 * until then.
 */
Outcome reset_resource_limits();

/**
 * Opens descriptors 0 to 2 on /dev/null where they are closed, closes all others, clears the
 * environment, changes to "/", sets the umask to 022, ignores SIGPIPE and unblocks all signals.
 */
Outcome prepare_process();

/** Blocks every signal that can be blocked, so that an operation runs to its end. */
void block_signals();

}  // namespace ad_mounter
