/**
 * What the service manager, systemd(1), says about a unit.
 */
#pragma once

#include <string>

#include <tl/expected.hpp>

namespace ad_ctl {

/**
 * Asks for a unit's ActiveState, see org.freedesktop.systemd1(5), with a time limit of a second.
 * @param unit_path  the unit's object path
 * @return the state, such as "activating"; or why it could not be read
 */
tl::expected<std::string, std::string> read_active_state(const char* unit_path);

}  // namespace ad_ctl
