#pragma once

#include <algorithm>
#include <utility>

namespace linux_platform {

/** The delay before the next attempt: 50 ms at first, doubled each time, at most 3 s. */
class RetryDelay {
public:
    /** The delay before this attempt, in milliseconds; the one after it waits longer. */
    unsigned next_ms() { return std::exchange(next_ms_, std::min(next_ms_ * 2, longest_ms)); }

    /** Starts over, after an attempt that succeeded. */
    void reset() { next_ms_ = first_ms; }

private:
    static constexpr unsigned first_ms = 50;
    static constexpr unsigned longest_ms = 3000;

    unsigned next_ms_ = first_ms;
};

}  // namespace linux_platform
