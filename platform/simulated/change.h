/**
 * The differences between two states.
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
    /** The setting's new type, setting_none when the key was removed. */
    int type = setting_none;
    /** The setting's new integer, the new connection type, the profile's new state. */
    int value = 0;
};

/**
 * The changes that callbacks report, in the order of the newer file. Those of
 * entries that it no longer has come last, in the order of the older one.
 */
std::vector<Change> changes_between(const State& before, const State& after);

}  // namespace simulated_platform
