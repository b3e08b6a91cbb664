/**
 * What has changed between two states.
 */
#pragma once

#include "state.h"

#include <string>
#include <vector>

namespace simulated_platform {

struct Change {
    enum class Kind { setting, connection_type, profile_state };

    Kind kind = Kind::setting;
    /** The setting's key or the profile's name. */
    std::string name;
    /** The setting's new type, setting_none when the key is gone. */
    int type = setting_none;
    /** The setting's new integer, the new connection type, the profile's new state. */
    int value = 0;
};

/**
 * The changes that callbacks can tell of, in the order of the newer file; what
 * it does not name any more comes last, in the order of the older one.
 */
std::vector<Change> changes_between(const State& before, const State& after);

}  // namespace simulated_platform
