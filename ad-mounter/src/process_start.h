// Makes the process independent of how it was started.
#ifndef AD_MOUNTER_PROCESS_START_H
#define AD_MOUNTER_PROCESS_START_H

#include "messages.h"

namespace ad_mounter {

/**
 * Opens descriptors 0 to 2 where they are closed and closes all others, clears
 * the environment, goes to "/", sets the umask to 022 and puts signals in
 * order.
 */
Outcome prepare_process();

/** Holds back every signal that can be, so that work that has begun gets finished. */
void hold_signals();

}  // namespace ad_mounter

#endif
