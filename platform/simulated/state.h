/**
 * The contents of the state file, as plain data.
 */
#pragma once

#include "calls.h"

#include <climits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simulated_platform {

/** The type codes of settings, besides SETTINGS_TYPE_INT. */
enum SettingType { setting_none = 0, setting_string = 42, setting_double = 43, setting_bool = 44 };

/** The position of what the file does not contain: after everything that it does. */
constexpr int position_absent = INT_MAX;

struct Setting {
    std::string key;
    int type = setting_none;
    /** The value in a normal form: equal values have equal texts. */
    std::string text;
    /** The value of an integer; 0 for another type. */
    int integer = 0;
    /** The entry's place among all entries of the file. */
    int position = position_absent;
};

struct Profile {
    std::string name;
    int type = 0;
    int state = 0;
    int position = position_absent;
};

struct State {
    /** In the order of the file. */
    std::vector<Setting> settings;
    int connection_type = 0;
    int connection_type_position = position_absent;
    int wifi = 0;
    int cellular = 0;
    int ethernet = 0;
    int bluetooth = 0;
    /** The registered ones, in the order of their list. */
    std::vector<Profile> profiles;
    std::optional<std::string> firmware;
    Results results{};

    /** Null when there is none of that name. */
    const Setting* setting(std::string_view key) const;
    const Profile* profile(std::string_view name) const;

    int result(Call call) const { return results[static_cast<std::size_t>(call)]; }
};

/**
 * Parses the text of a state file.
 *
 * @param reason  receives one line about the first error when nothing is returned
 */
std::optional<State> parse_state(std::string_view text, std::string& reason);

}  // namespace simulated_platform
