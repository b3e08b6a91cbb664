// One run at a time.
#ifndef AD_MOUNTER_RUN_LOCK_H
#define AD_MOUNTER_RUN_LOCK_H

#include "messages.h"
#include "unique_fd.h"

namespace ad_mounter {

/** Held as long as the object lives, and never longer than the process. */
class RunLock {
public:
    /** Waits for the lock, 30 seconds at most. */
    Outcome take();

private:
    UniqueFd file_;
};

}  // namespace ad_mounter

#endif
