/**
 * Serialises runs of the tool.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"

namespace ad_mounter {

/** A lock that is released with this object, and with the process at the latest. */
class RunLock {
public:
    /** Waits for the lock, for at most 30 seconds; then fails with EX_TEMPFAIL. */
    Outcome acquire();

private:
    base::UniqueFd file_;
};

}  // namespace ad_mounter
