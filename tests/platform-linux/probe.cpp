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
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <glib-unix.h>
#include <unistd.h>

namespace {

/** What output parameters hold before a call. */
constexpr int UNTOUCHED = -77;

GMainLoop* main_loop = nullptr;
connection_h connection = nullptr;
std::vector<connection_profile_h> profiles;

__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    printf("%" PRId64 " ", g_get_monotonic_time());
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    putchar('\n');
    fflush(stdout);
}

// --- Callbacks ---------------------------------------------------------------

void on_setting(keynode_t* node, void* user_data) {
    say("setting %s %d %d %s", vconf_keynode_get_name(node), vconf_keynode_get_type(node),
        vconf_keynode_get_int(node), static_cast<const char*>(user_data));
}

void on_type(connection_type_e type, void* /*user_data*/) { say("type-changed %d", type); }

void on_profile(connection_profile_state_e state, void* user_data) {
    say("profile-changed %zu %d", reinterpret_cast<size_t>(user_data), static_cast<int>(state));
}

void on_signal(int /*number*/) {
    __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_ERROR, "probe", "from a signal handler");
}

// --- Commands ----------------------------------------------------------------

void watch(std::istream& arguments) {
    std::string key;
    arguments >> key;
    static char first[] = "first";
    static char again[] = "again";
    static std::vector<std::string> watched;
    const bool known = std::find(watched.begin(), watched.end(), key) != watched.end();
    watched.push_back(key);
    say("watch %d", vconf_notify_key_changed(key.c_str(), on_setting, known ? again : first));
}

void get(std::istream& arguments) {
    std::string key;
    arguments >> key;
    int value = UNTOUCHED;
    const int result = vconf_get_int(key.c_str(), &value);
    say("get %d %d", result, value);
}

/** Room for an enumeration's value, beginning with one that no enumeration has. */
template <typename Enumeration>
struct Room {
    static_assert(sizeof(Enumeration) == sizeof(int));
    int value = UNTOUCHED;
    Enumeration* get() { return reinterpret_cast<Enumeration*>(&value); }
};

void type(std::istream& /*arguments*/) {
    Room<connection_type_e> room;
    const int result = connection_get_type(connection, room.get());
    say("type %d %d", result, room.value);
}

template <typename State>
void say_state(int (*query)(connection_h, State*)) {
    Room<State> room;
    const int result = query(connection, room.get());
    say("state %d %d", result, room.value);
}

void state(std::istream& arguments) {
    std::string name;
    arguments >> name;
    if (name == "wifi") say_state(connection_get_wifi_state);
    if (name == "cellular") say_state(connection_get_cellular_state);
    if (name == "ethernet") say_state(connection_get_ethernet_state);
    if (name == "bt") say_state(connection_get_bt_state);
}

void watch_type(std::istream& /*arguments*/) {
    say("watch-type %d", connection_set_type_changed_cb(connection, on_type, nullptr));
}

void list_profiles(std::istream& /*arguments*/) {
    connection_profile_iterator_h iterator = nullptr;
    const int result =
        connection_get_profile_iterator(connection, CONNECTION_ITERATOR_TYPE_REGISTERED, &iterator);
    std::ostringstream list;
    while (connection_profile_iterator_has_next(iterator)) {
        connection_profile_h profile = nullptr;
        Room<connection_profile_type_e> type;
        connection_profile_iterator_next(iterator, &profile);
        connection_profile_get_type(profile, type.get());
        auto known = std::find(profiles.begin(), profiles.end(), profile);
        if (known == profiles.end()) known = profiles.insert(profiles.end(), profile);
        list << ' ' << known - profiles.begin() << ':' << type.value;
    }
    connection_destroy(iterator);
    say("profiles %d%s", result, list.str().c_str());
}

void watch_profile(std::istream& arguments) {
    size_t number = 0;
    arguments >> number;
    say("watch-profile %d", connection_profile_set_state_changed_cb(
                                profiles.at(number), on_profile, reinterpret_cast<void*>(number)));
}

void unwatch_profile(std::istream& arguments) {
    size_t number = 0;
    arguments >> number;
    say("unwatch-profile %d", connection_profile_unset_state_changed_cb(profiles.at(number)));
}

void misuse(std::istream& /*arguments*/) {
    int integer = UNTOUCHED;
    char* text = nullptr;
    connection_h gone = nullptr;
    connection_create(&gone);
    connection_destroy(gone);
    Room<connection_type_e> connection_type;
    Room<connection_wifi_state_e> wifi;
    Room<connection_profile_type_e> profile_type;
    connection_profile_iterator_h iterator = nullptr;
    connection_profile_h profile = nullptr;
    const std::map<std::string, int> results = {
        {"notify without a callback", vconf_notify_key_changed("db/a", nullptr, nullptr)},
        {"notify without a key", vconf_notify_key_changed(nullptr, on_setting, nullptr)},
        {"notify of an empty key", vconf_notify_key_changed("", on_setting, nullptr)},
        {"notify of a folder", vconf_notify_key_changed("db/a/", on_setting, nullptr)},
        {"notify of a rooted key", vconf_notify_key_changed("/db/a", on_setting, nullptr)},
        {"get of no key", vconf_get_int(nullptr, &integer)},
        {"get into nothing", vconf_get_int("db/a", nullptr)},
        {"create into nothing", connection_create(nullptr)},
        {"destroy of null", connection_destroy(nullptr)},
        {"destroy twice", connection_destroy(gone)},
        {"type of a destroyed client", connection_get_type(gone, connection_type.get())},
        {"type into nothing", connection_get_type(connection, nullptr)},
        {"state of a destroyed client", connection_get_wifi_state(gone, wifi.get())},
        {"callback on a destroyed client", connection_set_type_changed_cb(gone, on_type, nullptr)},
        {"no callback", connection_set_type_changed_cb(connection, nullptr, nullptr)},
        {"walk of a destroyed client",
         connection_get_profile_iterator(gone, CONNECTION_ITERATOR_TYPE_REGISTERED, &iterator)},
        {"next of null", connection_profile_iterator_next(nullptr, &profile)},
        {"type of no profile", connection_profile_get_type(nullptr, profile_type.get())},
        {"callback on no profile",
         connection_profile_set_state_changed_cb(nullptr, on_profile, nullptr)},
        {"no callback on no profile", connection_profile_unset_state_changed_cb(nullptr)},
        {"another fact", system_info_get_value_string(1, &text)},
        {"a fact into nothing",
         system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, nullptr)}};
    for (const auto& [what, result] : results) {
        if (result == 0) say("accepted: %s", what.c_str());
    }
    const bool touched = integer != UNTOUCHED || text || connection_type.value != UNTOUCHED ||
                         wifi.value != UNTOUCHED || iterator || profile ||
                         profile_type.value != UNTOUCHED;
    say("misuse %d", touched);
}

void firmware(std::istream& /*arguments*/) {
    char* value = nullptr;
    const int result = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &value);
    say("firmware %d %s", result, value ? value : "-");
    free(value);
}

void log(std::istream& arguments) {
    int priority = 0;
    std::string message;
    arguments >> priority;
    arguments.get();
    std::getline(arguments, message);
    say("log %d", __dlog_print(PLATFORM_LOG_MAIN, priority, "probe", "%s", message.c_str()));
}

void log_burst(std::istream& arguments) {
    int count = 0;
    arguments >> count;
    for (int i = 0; i < count; ++i) {
        __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, "probe", "burst %d", i);
    }
    say("log-burst");
}

void block(std::istream& arguments) {
    std::string file;
    arguments >> file;
    while (access(file.c_str(), F_OK) != 0) g_usleep(1000);
    say("block");
}

void execute(const std::string& line) {
    static const std::map<std::string, std::function<void(std::istream&)>> commands = {
        {"watch", watch},
        {"get", get},
        {"type", type},
        {"state", state},
        {"watch-type", watch_type},
        {"profiles", list_profiles},
        {"watch-profile", watch_profile},
        {"unwatch-profile", unwatch_profile},
        {"misuse", misuse},
        {"firmware", firmware},
        {"log", log},
        {"log-burst", log_burst},
        {"block", block}};
    std::istringstream arguments(line);
    std::string name;
    arguments >> name;
    const auto command = commands.find(name);
    if (command == commands.end()) {
        say("unknown command %s", name.c_str());
    } else {
        command->second(arguments);
    }
}

gboolean on_input(int descriptor, GIOCondition /*condition*/, void* /*user_data*/) {
    static std::string buffer;
    char chunk[4096];
    const ssize_t size = read(descriptor, chunk, sizeof chunk);
    if (size <= 0) {
        g_main_loop_quit(main_loop);
        return G_SOURCE_REMOVE;
    }
    buffer.append(chunk, static_cast<size_t>(size));
    for (size_t end = buffer.find('\n'); end != std::string::npos; end = buffer.find('\n')) {
        const std::string line = buffer.substr(0, end);
        buffer.erase(0, end + 1);
        execute(line);
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
    signal(SIGUSR1, on_signal);
    main_loop = g_main_loop_new(nullptr, FALSE);
    const int result = connection_create(&connection);
    say("ready %d", result);
    g_unix_fd_add(STDIN_FILENO, G_IO_IN, on_input, nullptr);
    g_main_loop_run(main_loop);
    connection_destroy(connection);
    g_main_loop_unref(main_loop);
    return 0;
}
