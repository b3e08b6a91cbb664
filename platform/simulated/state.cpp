#include "state.h"

#include "base/glib_owned.h"
#include "settings_store.h"

#include <algorithm>
#include <array>
#include <utility>

#include <glib.h>

namespace simulated_platform {

namespace {

struct NamedNumber {
    std::string_view name;
    int number;
};

constexpr std::array<NamedNumber, 5> connection_types{
    {{"disconnected", 0}, {"wifi", 1}, {"cellular", 2}, {"ethernet", 3}, {"bluetooth", 4}}};
constexpr std::array<NamedNumber, 4> profile_types{
    {{"cellular", 0}, {"wifi", 1}, {"ethernet", 2}, {"bluetooth", 3}}};
constexpr std::array<NamedNumber, 2> truth_values{{{"false", 0}, {"true", 1}}};

constexpr char profile_prefix[] = "profile ";

bool parse_int(const std::string& text, int& number) {
    gint64 wide = 0;
    if (g_ascii_string_to_signed(text.c_str(), 10, INT_MIN, INT_MAX, &wide, nullptr) == FALSE) {
        return false;
    }
    number = static_cast<int>(wide);
    return true;
}

template <std::size_t size>  // NOLINT(readability-identifier-naming): a constant
bool find_number(const std::array<NamedNumber, size>& numbers, const std::string& name,
                 int& number) {
    for (const NamedNumber& known : numbers) {
        if (known.name == name) {
            number = known.number;
            return true;
        }
    }
    return false;
}

/** Sets a setting's type, text and integer; false when the value is not one of the type. */
bool set_value(Setting& setting, const std::string& type, const std::string& value) {
    if (type == "string") {
        setting.type = setting_string;
        setting.text = value;
        return true;
    }
    if (type == "int") {
        setting.type = SETTINGS_TYPE_INT;
        const bool is_integer = parse_int(value, setting.integer);
        setting.text = std::to_string(setting.integer);
        return is_integer;
    }
    if (type == "double") {
        setting.type = setting_double;
        char* end = nullptr;
        const double number = g_ascii_strtod(value.c_str(), &end);
        std::array<char, G_ASCII_DTOSTR_BUF_SIZE> buffer{};
        setting.text = g_ascii_dtostr(buffer.data(), buffer.size(), number);
        return !value.empty() && *end == '\0';
    }
    int truth = 0;
    setting.type = setting_bool;
    setting.text = value;
    return type == "bool" && find_number(truth_values, value, truth);
}

/**
 * Reads the groups of a key file into a state. Each function returns false, with
 * the reason set, at the first error.
 */
class Parser {
public:
    Parser(GKeyFile* file, std::string& reason) : file_(file), reason_(reason) {}

    std::optional<State> parse() {
        const base::Owned<char*> groups(g_key_file_get_groups(file_, nullptr));
        // An interrupted writer may have truncated the file.
        bool is_good = *groups.get() != nullptr || fail("contains no group");
        for (char** group = groups.get(); is_good && *group != nullptr; ++group) {
            is_good = read_group(*group);
        }
        return is_good && order_profiles() ? std::optional<State>(std::move(state_)) : std::nullopt;
    }

private:
    bool fail(const std::string& reason) {
        reason_ = reason;
        return false;
    }

    bool fail_at(const std::string& group, const std::string& key, const std::string& what) {
        return fail("[" + group + "] " + key + ": " + what);
    }

    bool fail_value(const std::string& group, const std::string& key, const std::string& expected) {
        std::string value;
        read_text(group, key, value);
        return fail_at(group, key, '"' + value + "\" is not " + expected);
    }

    bool read_text(const std::string& group, const std::string& key, std::string& value) {
        GError* failure = nullptr;
        const base::Owned<char> found(
            g_key_file_get_string(file_, group.c_str(), key.c_str(), &failure));
        const base::Owned<GError> error(failure);
        if (!found) {
            return fail_at(group, key, error->message);
        }
        value = found.get();
        return true;
    }

    bool read_number(const std::string& group, const std::string& key, int& value) {
        std::string text;
        return read_text(group, key, text) &&
               (parse_int(text, value) || fail_value(group, key, "an integer"));
    }

    template <std::size_t size>  // NOLINT(readability-identifier-naming): a constant
    bool read_type(const std::string& group, const std::string& key,
                   const std::array<NamedNumber, size>& types, int& value) {
        std::string text;
        return read_text(group, key, text) &&
               (find_number(types, text, value) || parse_int(text, value) ||
                fail_value(group, key, "a known type or a number"));
    }

    /** Calls a member function with the group and each of its keys. */
    bool read_keys(const std::string& group,
                   bool (Parser::*read)(const std::string&, const std::string&)) {
        const base::Owned<char*> keys(g_key_file_get_keys(file_, group.c_str(), nullptr, nullptr));
        for (char** key = keys.get(); *key != nullptr; ++key) {
            if (!(this->*read)(group, *key)) {
                return false;
            }
        }
        return true;
    }

    bool read_group(const std::string& group) {
        if (group == "settings") {
            return read_keys(group, &Parser::read_setting);
        }
        if (group == "network") {
            return read_keys(group, &Parser::read_network);
        }
        if (group == "system") {
            return read_keys(group, &Parser::read_system);
        }
        if (group == "results") {
            return read_keys(group, &Parser::read_result);
        }
        if (group.rfind(profile_prefix, 0) == 0) {
            return read_profile(group);
        }
        return fail("unknown group [" + group + "]");
    }

    bool read_setting(const std::string& group, const std::string& key) {
        // GKeyFile lists a repeated key each time, always with its last value.
        if (state_.setting(key) != nullptr) {
            return true;
        }
        std::string text;
        if (!read_text(group, key, text)) {
            return false;
        }
        const std::size_t colon = text.find(':');
        if (colon == std::string::npos) {
            return fail_value(group, key, "TYPE:VALUE, such as int:0 or string:text");
        }
        Setting setting;
        setting.key = key;
        setting.position = next_position_++;
        if (!set_value(setting, text.substr(0, colon), text.substr(colon + 1))) {
            return fail_value(group, key, "a value of the type int, string, double or bool");
        }
        state_.settings.push_back(std::move(setting));
        return true;
    }

    bool read_network(const std::string& group, const std::string& key) {
        static constexpr std::pair<std::string_view, int State::*> states[] = {
            {"wifi", &State::wifi},
            {"cellular", &State::cellular},
            {"ethernet", &State::ethernet},
            {"bluetooth", &State::bluetooth},
        };
        for (const auto& [name, field] : states) {
            if (key == name) {
                return read_number(group, key, state_.*field);
            }
        }
        if (key == "type") {
            state_.connection_type_position = next_position_++;
            return read_type(group, key, connection_types, state_.connection_type);
        }
        return key == "profiles" ? read_profile_list(group, key)
                                 : fail_at(group, key, "unknown key");
    }

    bool read_profile_list(const std::string& group, const std::string& key) {
        GError* failure = nullptr;
        const base::Owned<char*> names(
            g_key_file_get_string_list(file_, group.c_str(), key.c_str(), nullptr, &failure));
        const base::Owned<GError> error(failure);
        if (!names) {
            return fail_at(group, key, error->message);
        }
        registered_.clear();
        for (char** name = names.get(); *name != nullptr; ++name) {
            if (std::find(registered_.begin(), registered_.end(), *name) != registered_.end()) {
                return fail_at(group, key, std::string("lists ") + *name + " twice");
            }
            registered_.emplace_back(*name);
        }
        return true;
    }

    bool read_profile(const std::string& group) {
        state_.profiles.emplace_back();
        state_.profiles.back().name = group.substr(sizeof profile_prefix - 1);
        state_.profiles.back().position = next_position_++;
        if (g_key_file_has_key(file_, group.c_str(), "type", nullptr) == FALSE) {
            return fail_at(group, "type", "missing");
        }
        return read_keys(group, &Parser::read_profile_key);
    }

    bool read_profile_key(const std::string& group, const std::string& key) {
        Profile& profile = state_.profiles.back();
        if (key == "type") {
            return read_type(group, key, profile_types, profile.type);
        }
        return key == "state" ? read_number(group, key, profile.state)
                              : fail_at(group, key, "unknown key");
    }

    bool read_system(const std::string& group, const std::string& key) {
        return key == "firmware" ? read_text(group, key, state_.firmware.emplace())
                                 : fail_at(group, key, "unknown key");
    }

    bool read_result(const std::string& group, const std::string& key) {
        const std::optional<Call> call = call_named(key);
        return call ? read_number(group, key, state_.results[static_cast<std::size_t>(*call)])
                    : fail_at(group, key, "no such function");
    }

    /** Keeps the registered profiles only, in the order of their list. */
    bool order_profiles() {
        std::vector<Profile> ordered;
        for (const std::string& name : registered_) {
            const Profile* profile = state_.profile(name);
            if (profile == nullptr) {
                return fail_at(profile_prefix + name, "type", "missing");
            }
            ordered.push_back(*profile);
        }
        state_.profiles = std::move(ordered);
        return true;
    }

    GKeyFile* file_;
    std::string& reason_;
    State state_;
    std::vector<std::string> registered_;
    int next_position_ = 0;
};

template <typename Entries, typename Key>
auto find_entry(const Entries& entries, Key key, std::string_view name) -> decltype(&entries[0]) {
    for (const auto& entry : entries) {
        if (entry.*key == name) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

const Setting* State::setting(std::string_view key) const {
    return find_entry(settings, &Setting::key, key);
}

const Profile* State::profile(std::string_view name) const {
    return find_entry(profiles, &Profile::name, name);
}

std::optional<State> parse_state(std::string_view text, std::string& reason) {
    // A value that was cut off may still be valid and yet wrong.
    if (!text.empty() && text.back() != '\n') {
        reason = "last line is not terminated";
        return std::nullopt;
    }
    const base::Owned<GKeyFile> file(g_key_file_new());
    GError* failure = nullptr;
    if (g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE,
                                  &failure) == FALSE) {
        const base::Owned<GError> error(failure);
        reason = error->message;
        return std::nullopt;
    }
    std::optional<State> state = Parser(file.get(), reason).parse();
    // A value that the reason quotes may contain newlines.
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return state;
}

}  // namespace simulated_platform
