#include "state.h"

#include "settings_store.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include <glib.h>

namespace simulated_platform {

namespace {

template <typename T, void (*release)(T*)>
struct Release {
    void operator()(T* object) const { release(object); }
};
using KeyFile = std::unique_ptr<GKeyFile, Release<GKeyFile, g_key_file_unref>>;
using ErrorHandle = std::unique_ptr<GError, Release<GError, g_error_free>>;
using Texts = std::unique_ptr<gchar*, Release<gchar*, g_strfreev>>;

struct Name {
    std::string_view text;
    int number;
};

constexpr std::array<Name, 5> connection_types{
    {{"disconnected", 0}, {"wifi", 1}, {"cellular", 2}, {"ethernet", 3}, {"bluetooth", 4}}};
constexpr std::array<Name, 4> profile_types{
    {{"cellular", 0}, {"wifi", 1}, {"ethernet", 2}, {"bluetooth", 3}}};
constexpr std::array<Name, 2> truth_values{{{"false", 0}, {"true", 1}}};

constexpr char profile_prefix[] = "profile ";

bool parse_int(const std::string& text, int& number) {
    gint64 wide = 0;
    if (!g_ascii_string_to_signed(text.c_str(), 10, INT_MIN, INT_MAX, &wide, nullptr)) return false;
    number = static_cast<int>(wide);
    return true;
}

template <std::size_t count>
bool find_number(const std::array<Name, count>& names, const std::string& text, int& number) {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [&](const Name& name) { return name.text == text; });
    if (found == names.end()) return false;
    number = found->number;
    return true;
}

/** Takes a key file apart; the first thing wrong ends it, and fail() says what. */
class Parser {
public:
    Parser(GKeyFile* file, std::string& reason) : file_(file), reason_(reason) {}

    bool run(State& state) {
        const Texts groups(g_key_file_get_groups(file_, nullptr));
        // What an interrupted writer has truncated; too little to mean anything.
        if (!*groups.get()) return fail("it holds no group");
        for (gchar** group = groups.get(); *group; ++group)
            if (!read_group(*group, state)) return false;
        return order_profiles(state);
    }

private:
    bool fail(const std::string& reason) {
        reason_ = reason;
        return false;
    }

    bool fail_at(const std::string& group, const std::string& key, const std::string& what) {
        std::string reason = "[";
        reason.append(group).append("] ").append(key).append(": ").append(what);
        return fail(reason);
    }

    bool fail_value(const std::string& group, const std::string& key, const std::string& expected) {
        std::string value;
        text(group, key, value);
        return fail_at(group, key, '"' + value + "\" is not " + expected);
    }

    bool text(const std::string& group, const std::string& key, std::string& value) {
        GError* error = nullptr;
        const std::unique_ptr<gchar, decltype(&g_free)> found(
            g_key_file_get_string(file_, group.c_str(), key.c_str(), &error), g_free);
        const ErrorHandle owner(error);
        if (!found) return fail_at(group, key, error->message);
        value = found.get();
        return true;
    }

    bool number(const std::string& group, const std::string& key, int& value) {
        std::string found;
        if (!text(group, key, found)) return false;
        return parse_int(found, value) || fail_value(group, key, "an integer");
    }

    template <std::size_t count>
    bool named_number(const std::string& group, const std::string& key,
                      const std::array<Name, count>& names, int& value) {
        std::string found;
        if (!text(group, key, found)) return false;
        return find_number(names, found, value) || parse_int(found, value) ||
               fail_value(group, key, "a known type or a number");
    }

    bool read_group(const std::string& group, State& state) {
        if (group.rfind(profile_prefix, 0) == 0) return read_profile(group, state);
        if (group != "settings" && group != "network" && group != "system" && group != "results")
            return fail("unknown group [" + group + "]");
        const Texts keys(g_key_file_get_keys(file_, group.c_str(), nullptr, nullptr));
        for (gchar** key = keys.get(); *key; ++key) {
            bool good = false;
            if (group == "settings") {
                good = read_setting(group, *key, state);
            } else if (group == "network") {
                good = read_network(group, *key, state);
            } else if (group == "system") {
                good = read_system(group, *key, state);
            } else {
                good = read_result(group, *key, state);
            }
            if (!good) return false;
        }
        return true;
    }

    bool read_setting(const std::string& group, const std::string& key, State& state) {
        // A key that is there twice is listed twice, both times with its last value.
        if (state.setting(key)) return true;
        std::string value;
        if (!text(group, key, value)) return false;
        const std::size_t colon = value.find(':');
        if (colon == std::string::npos)
            return fail_value(group, key, "TYPE:VALUE, such as int:0 or string:text");
        Setting setting;
        setting.key = key;
        setting.position = next_position_++;
        if (!read_value(value.substr(0, colon), value.substr(colon + 1), setting))
            return fail_value(group, key, "a value of the type int, string, double or bool");
        state.settings.push_back(std::move(setting));
        return true;
    }

    static bool read_value(const std::string& type, const std::string& value, Setting& setting) {
        if (type == "string") {
            setting.type = setting_string;
            setting.text = value;
            return true;
        }
        if (type == "int") {
            setting.type = SETTINGS_TYPE_INT;
            if (!parse_int(value, setting.integer)) return false;
            setting.text = std::to_string(setting.integer);
            return true;
        }
        if (type == "double") {
            setting.type = setting_double;
            char* end = nullptr;
            const double number = g_ascii_strtod(value.c_str(), &end);
            if (value.empty() || *end) return false;
            std::array<char, G_ASCII_DTOSTR_BUF_SIZE> buffer{};
            setting.text = g_ascii_dtostr(buffer.data(), buffer.size(), number);
            return true;
        }
        int truth = 0;
        setting.type = setting_bool;
        setting.text = value;
        return type == "bool" && find_number(truth_values, value, truth);
    }

    bool read_network(const std::string& group, const std::string& key, State& state) {
        if (key == "type") {
            state.connection_type_position = next_position_++;
            return named_number(group, key, connection_types, state.connection_type);
        }
        if (key == "wifi") return number(group, key, state.wifi);
        if (key == "cellular") return number(group, key, state.cellular);
        if (key == "ethernet") return number(group, key, state.ethernet);
        if (key == "bluetooth") return number(group, key, state.bluetooth);
        if (key == "profiles") return read_profile_list(group, key);
        return fail_at(group, key, "unknown key");
    }

    bool read_profile_list(const std::string& group, const std::string& key) {
        GError* error = nullptr;
        const Texts list(
            g_key_file_get_string_list(file_, group.c_str(), key.c_str(), nullptr, &error));
        const ErrorHandle owner(error);
        if (!list) return fail_at(group, key, error->message);
        registered_.clear();
        for (gchar** name = list.get(); *name; ++name) {
            if (std::find(registered_.begin(), registered_.end(), *name) != registered_.end())
                return fail_at(group, key, std::string("it names ") + *name + " twice");
            registered_.emplace_back(*name);
        }
        return true;
    }

    bool read_profile(const std::string& group, State& state) {
        Profile profile;
        profile.name = group.substr(sizeof profile_prefix - 1);
        profile.position = next_position_++;
        bool has_type = false;
        const Texts keys(g_key_file_get_keys(file_, group.c_str(), nullptr, nullptr));
        for (gchar** listed = keys.get(); *listed; ++listed) {
            const std::string key = *listed;
            if (key == "type") {
                has_type = true;
                if (!named_number(group, key, profile_types, profile.type)) return false;
            } else if (key == "state") {
                if (!number(group, key, profile.state)) return false;
            } else {
                return fail_at(group, key, "unknown key");
            }
        }
        if (!has_type) return fail_at(group, "type", "it is missing");
        state.profiles.push_back(std::move(profile));
        return true;
    }

    bool read_system(const std::string& group, const std::string& key, State& state) {
        if (key != "firmware") return fail_at(group, key, "unknown key");
        std::string value;
        if (!text(group, key, value)) return false;
        state.firmware = std::move(value);
        return true;
    }

    bool read_result(const std::string& group, const std::string& key, State& state) {
        const std::optional<Call> call = call_named(key);
        if (!call) return fail_at(group, key, "no call has that name");
        return number(group, key, state.results[static_cast<std::size_t>(*call)]);
    }

    /** Leaves the registered profiles, in the order of their list. */
    bool order_profiles(State& state) {
        std::vector<Profile> ordered;
        for (const std::string& name : registered_) {
            const Profile* profile = state.profile(name);
            if (!profile) return fail_at(profile_prefix + name, "type", "it is missing");
            ordered.push_back(*profile);
        }
        state.profiles = std::move(ordered);
        return true;
    }

    GKeyFile* file_;
    std::string& reason_;
    std::vector<std::string> registered_;
    int next_position_ = 0;
};

template <typename Entries, typename Key>
auto find_entry(const Entries& entries, Key key, std::string_view name) -> decltype(&entries[0]) {
    for (const auto& entry : entries)
        if (entry.*key == name) return &entry;
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
    // Cut off inside a line, a value may still read well and yet be wrong.
    if (!text.empty() && text.back() != '\n') {
        reason = "its last line has no end";
        return std::nullopt;
    }
    const KeyFile file(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, &error)) {
        const ErrorHandle owner(error);
        reason = error->message;
        return std::nullopt;
    }
    State state;
    if (Parser(file.get(), reason).run(state)) return state;
    // A value that it quotes may hold line ends.
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return std::nullopt;
}

}  // namespace simulated_platform
