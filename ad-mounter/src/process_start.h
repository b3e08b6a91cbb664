/**
 * Makes the process independent of how it was started.
 */
#pragma once

#include "outcome.h"

namespace ad_mounter {

/**
 * Opens descriptors 0 to 2 on /dev/null where they are closed, closes all others, clears the
 * environment, changes to "/", sets the umask to 022, ignores SIGPIPE and unblocks all signals.
 */
Outcome prepare_process();

/** Blocks every signal that can be blocked, so that an operation runs to its end. */
void block_signals();

}  // namespace ad_mounter
