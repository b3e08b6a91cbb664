/**
 * What the daemon's next pass would do.
 */
#pragma once

#include <string>
#include <vector>

namespace ad_ctl {

struct NextPass {
    /** What would happen, in order. */
    std::vector<std::string> steps;
    /** Whether nothing would keep an image from being installed. */
    bool can_update = true;
};

/** Asks the server for its index. Stores nothing and changes nothing. */
NextPass plan_next_pass();

}  // namespace ad_ctl
