/**
 * Drives a platform library through its C functions: takes commands on standard
 * input, one a line, and prints answers and callbacks on standard output. Each
 * printed line begins with the time, in microseconds of CLOCK_MONOTONIC.
 *
 *   watch KEY | get KEY          settings
 *   type | state TYPE            the connection; TYPE is wifi, cellular, ethernet or bt
 *   watch-type                   callbacks of the connection's type
 *   profiles                     their types in order; their numbers count on over the walks
 *   watch-profile N | unwatch-profile N
 *   misuse                       every function with handles and pointers that are none
 *   firmware                     key 1104
 *   log PRIORITY MESSAGE         a line under the tag "probe"
 *   log-burst COUNT              as many lines at once
 *   block FILE                   keeps the main loop from running until the file is there
 *
 * SIGUSR1 logs a line from the signal handler.
 */
#include "network_connection.h"
#include "platform_log.h"
#include "settings_store.h"
#include "system_information.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <glib.h>
#include <unistd.h>

namespace {

connection_h connection = nullptr;
std::vector<connection_profile_h> profiles;

void say(const std::string& text) {
    printf("%s %s\n", std::to_string(g_get_monotonic_time()).c_str(), text.c_str());
    fflush(stdout);
}

/** A result and an output parameter's value, as an answer. */
std::string pair(int result, int value) {
    return std::to_string(result) + " " + std::to_string(value);
}

/** Room for an enumeration's value, beginning with one that no call may leave there. */
struct Room {
    static constexpr int UNTOUCHED = -77;
    int value = UNTOUCHED;

    template <typename Enumeration>
    operator Enumeration*() {
        static_assert(sizeof(Enumeration) == sizeof(int));
        return reinterpret_cast<Enumeration*>(&value);
    }
};

// --- Callbacks ---------------------------------------------------------------

void on_setting(keynode_t* node, void* user_data) {
    say(std::string("setting ") + vconf_keynode_get_name(node) + " " +
        pair(vconf_keynode_get_type(node), vconf_keynode_get_int(node)) + " " +
        static_cast<const char*>(user_data));
}

void on_type(connection_type_e type, void* /*user_data*/) {
    say("type-changed " + std::to_string(type));
}

void on_profile(connection_profile_state_e state, void* user_data) {
    say("profile-changed " + pair(static_cast<int>(reinterpret_cast<intptr_t>(user_data)), state));
}

void on_signal(int /*number*/) {
    __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_ERROR, "probe", "from a signal handler");
}

// --- Commands, which give their answers --------------------------------------

/** What follows a command's name. */
using Arguments = std::istream;

template <typename Value = std::string>
Value next(Arguments& arguments) {
    Value value{};
    arguments >> value;
    return value;
}

std::string watch(Arguments& arguments) {
    static char first[] = "first";
    static char again[] = "again";
    static std::set<std::string> watched;
    const auto [key, is_new] = watched.insert(next(arguments));
    return std::to_string(
        vconf_notify_key_changed(key->c_str(), on_setting, is_new ? first : again));
}

std::string state(Arguments& arguments) {
    const std::string name = next(arguments);
    Room state;
    int result = -1;
    if (name == "wifi") result = connection_get_wifi_state(connection, state);
    if (name == "cellular") result = connection_get_cellular_state(connection, state);
    if (name == "ethernet") result = connection_get_ethernet_state(connection, state);
    if (name == "bt") result = connection_get_bt_state(connection, state);
    return pair(result, state.value);
}

std::string list_profiles() {
    connection_profile_iterator_h iterator = nullptr;
    std::string list = std::to_string(connection_get_profile_iterator(
        connection, CONNECTION_ITERATOR_TYPE_REGISTERED, &iterator));
    while (connection_profile_iterator_has_next(iterator)) {
        connection_profile_h profile = nullptr;
        Room type;
        connection_profile_iterator_next(iterator, &profile);
        connection_profile_get_type(profile, type);
        auto known = std::find(profiles.begin(), profiles.end(), profile);
        if (known == profiles.end()) known = profiles.insert(profiles.end(), profile);
        list += " " + std::to_string(known - profiles.begin()) + ":" + std::to_string(type.value);
    }
    connection_destroy(iterator);
    return list;
}

std::string watch_profile(Arguments& arguments) {
    const auto number = next<size_t>(arguments);
    return std::to_string(connection_profile_set_state_changed_cb(profiles.at(number), on_profile,
                                                                  reinterpret_cast<void*>(number)));
}

/** Gives the calls that were accepted, by their order here, and whether anything was written. */
std::string misuse() {
    Room value;
    void* given = nullptr;
    char* text = nullptr;
    connection_h gone = nullptr;
    connection_create(&gone);
    connection_destroy(gone);
    const int results[] = {
        vconf_notify_key_changed("db/a", nullptr, nullptr),
        vconf_notify_key_changed(nullptr, on_setting, nullptr),
        vconf_notify_key_changed("", on_setting, nullptr),
        vconf_notify_key_changed("db/a/", on_setting, nullptr),
        vconf_notify_key_changed("/db/a", on_setting, nullptr),
        vconf_get_int(nullptr, value),
        vconf_get_int("db/a", nullptr),
        connection_create(nullptr),
        connection_destroy(nullptr),
        connection_destroy(gone),
        connection_get_type(gone, value),
        connection_get_type(connection, nullptr),
        connection_get_wifi_state(gone, value),
        connection_set_type_changed_cb(gone, on_type, nullptr),
        connection_set_type_changed_cb(connection, nullptr, nullptr),
        connection_get_profile_iterator(gone, CONNECTION_ITERATOR_TYPE_REGISTERED, &given),
        connection_profile_iterator_next(nullptr, &given),
        connection_profile_get_type(nullptr, value),
        connection_profile_set_state_changed_cb(nullptr, on_profile, nullptr),
        connection_profile_unset_state_changed_cb(nullptr),
        system_info_get_value_string(1, &text),
        system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, nullptr)};
    std::string accepted;
    for (size_t i = 0; i < std::size(results); ++i) {
        if (results[i] == 0) accepted += "call " + std::to_string(i) + " ";
    }
    const bool written = value.value != Room::UNTOUCHED || given || text;
    return accepted + (written ? "written" : "nothing");
}

std::string firmware() {
    char* value = nullptr;
    const int result = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &value);
    const std::string answer = std::to_string(result) + " " + (value ? value : "-");
    free(value);
    return answer;
}

std::string log(int priority, const std::string& message) {
    return std::to_string(
        __dlog_print(PLATFORM_LOG_MAIN, priority, "probe", "%s", message.c_str()));
}

std::string execute(const std::string& name, Arguments& arguments) {
    Room value;
    if (name == "watch") return watch(arguments);
    if (name == "get") {
        const int result = vconf_get_int(next(arguments).c_str(), value);
        return pair(result, value.value);
    }
    if (name == "type") {
        const int result = connection_get_type(connection, value);
        return pair(result, value.value);
    }
    if (name == "state") return state(arguments);
    if (name == "watch-type") {
        return std::to_string(connection_set_type_changed_cb(connection, on_type, nullptr));
    }
    if (name == "profiles") return list_profiles();
    if (name == "watch-profile") return watch_profile(arguments);
    if (name == "unwatch-profile") {
        const auto profile = profiles.at(next<size_t>(arguments));
        return std::to_string(connection_profile_unset_state_changed_cb(profile));
    }
    if (name == "misuse") return misuse();
    if (name == "firmware") return firmware();
    if (name == "log") {
        const int priority = next<int>(arguments);
        std::string message;
        std::getline(arguments.ignore(), message);
        return log(priority, message);
    }
    if (name == "log-burst") {
        const int count = next<int>(arguments);
        for (int i = 0; i < count; ++i) log(PLATFORM_LOG_NORMAL, "burst " + std::to_string(i));
        return "done";
    }
    if (name == "block") {
        const std::string file = next(arguments);
        while (access(file.c_str(), F_OK) != 0) g_usleep(1000);
        return "done";
    }
    return "is no command";
}

gboolean on_input(GIOChannel* input, GIOCondition /*condition*/, void* main_loop) {
    char* line = nullptr;
    gsize end = 0;
    g_io_channel_read_line(input, &line, nullptr, &end, nullptr);
    if (!line) {
        g_main_loop_quit(static_cast<GMainLoop*>(main_loop));
        return G_SOURCE_REMOVE;
    }
    std::istringstream arguments(std::string(line, end));
    g_free(line);
    const std::string name = next(arguments);
    say(name + " " + execute(name, arguments));
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
    signal(SIGUSR1, on_signal);
    GMainLoop* main_loop = g_main_loop_new(nullptr, FALSE);
    say("ready " + std::to_string(connection_create(&connection)));
    GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
    g_io_channel_set_encoding(input, nullptr, nullptr);
    g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), on_input, main_loop);
    g_main_loop_run(main_loop);
    g_io_channel_unref(input);
    connection_destroy(connection);
    g_main_loop_unref(main_loop);
    return 0;
}
