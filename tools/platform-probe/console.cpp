#include "console.h"

#include "platform_log.h"
#include "queries.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <glib-unix.h>

namespace platform_probe {

namespace {

constexpr const char* log_tag = "platform-probe";

int to_number(const std::string& text) {
    return static_cast<int>(strtol(text.c_str(), nullptr, 10));
}

/** The profile with that number, or null. */
connection_profile_h numbered(const std::vector<connection_profile_h>& profiles,
                              const std::string& number) {
    const auto index = static_cast<std::size_t>(to_number(number));
    return index < profiles.size() ? profiles[index] : nullptr;
}

}  // namespace

const std::vector<Console::Command> Console::commands = {
    {"firmware", &Console::firmware},
    {"get", &Console::get},
    {"watch", &Console::watch_setting},
    {"type", &Console::type},
    {"watch-type", &Console::watch_type},
    {"state", &Console::state},
    {"profiles", &Console::profiles},
    {"watch-profile", &Console::watch_profile},
    {"unwatch-profile", &Console::unwatch_profile},
    {"log", &Console::log},
    {"log-burst", &Console::log_burst},
    {"hold", &Console::hold},
    {"release", &Console::release},
};

const char* Console::help() {
    return R"(  firmware               the firmware version
  get KEY                an integer setting
  watch KEY              print the changes of a setting: type code, integer
  type                   the type of the current connection
  watch-type             print its changes
  state TYPE             the state of wifi, cellular, ethernet or bluetooth
  profiles               the profiles, each with a number of its own and its type
  watch-profile NUMBER   print the changes of a profile's state
  unwatch-profile NUMBER
  log PRIORITY MESSAGE   a line in the platform log, tagged platform-probe
  log-burst COUNT        that many lines at once
  hold                   stop the main loop; commands are still executed
  release                let it run again
)";
}

Console::Console() : loop_(g_main_loop_new(nullptr, FALSE)) {
    const int result = connection_create(&connection_);
    if (result != 0) {
        fprintf(stderr, "platform-probe: connection_create: %s\n", describe_result(result).c_str());
    }
}

Console::~Console() {
    for (const auto& watched : watched_profiles_) {
        connection_profile_unset_state_changed_cb(profiles_[watched->number]);
    }
    if (connection_ != nullptr) {
        connection_destroy(connection_);
    }
}

void Console::show(const std::vector<std::string>& keys) {
    const auto print = [](const std::string& what, const std::string& result) {
        printf("%s: %s\n", what.c_str(), result.c_str());
    };
    print("firmware", query_firmware());
    print("connection type", query_type(connection_));
    for (const StateQuery& query : state_queries) {
        print(std::string(query.name) + " state", query_state(connection_, query));
    }
    print("profiles", query_profiles(connection_, profiles_));
    for (const std::string& key : keys) {
        print("setting " + key, query_setting(key));
    }
    fflush(stdout);
}

void Console::watch(const std::vector<std::string>& keys) {
    show(keys);
    for (const std::string& key : keys) {
        watch_setting(key);
    }
    watch_type("");
    for (std::size_t number = 0; number < profiles_.size(); ++number) {
        watch_profile(std::to_string(number));
    }
    g_unix_signal_add(SIGINT, &Console::on_stop, this);
    g_unix_signal_add(SIGTERM, &Console::on_stop, this);
    g_main_loop_run(loop_.get());
}

void Console::read_commands() {
    GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
    g_io_channel_set_encoding(input, nullptr, nullptr);
    g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &Console::on_input, this);
    g_main_loop_run(loop_.get());
    g_io_channel_unref(input);
}

gboolean Console::on_stop(void* self) {
    g_main_loop_quit(static_cast<Console*>(self)->loop_.get());
    return G_SOURCE_CONTINUE;
}

gboolean Console::on_input(GIOChannel* input, GIOCondition /*condition*/, void* self) {
    auto* console = static_cast<Console*>(self);
    do {
        char* read = nullptr;
        gsize end = 0;
        g_io_channel_read_line(input, &read, nullptr, &end, nullptr);
        const base::Owned<char> line(read);
        if (!line) {
            g_main_loop_quit(console->loop_.get());
            return G_SOURCE_REMOVE;
        }
        console->print('=', console->execute(std::string(line.get(), end)));
    } while (console->is_held_);
    return G_SOURCE_CONTINUE;
}

std::string Console::execute(const std::string& line) {
    const std::size_t blank = line.find(' ');
    const std::string name = line.substr(0, blank);
    const std::string argument = blank == std::string::npos ? "" : line.substr(blank + 1);
    for (const Command& command : commands) {
        if (name == command.name) {
            return (this->*command.execute)(argument);
        }
    }
    return "unknown command " + name;
}

void Console::print(char mark, const std::string& text) {
    printf("%lld %c %s\n", static_cast<long long>(g_get_monotonic_time()), mark, text.c_str());
    fflush(stdout);
}

// --- Callbacks ---------------------------------------------------------------

void Console::report(const std::string& change) {
    const bool is_on_thread = std::this_thread::get_id() == main_thread_;
    print('*', change + (is_on_thread ? "" : ", on the wrong thread"));
    if (!is_on_thread) {
        is_every_callback_on_thread_ = false;
    }
}

void Console::on_setting(keynode_t* node, void* self) {
    static_cast<Console*>(self)->report(std::string("setting ") + vconf_keynode_get_name(node) +
                                        " " + std::to_string(vconf_keynode_get_type(node)) + " " +
                                        std::to_string(vconf_keynode_get_int(node)));
}

void Console::on_type(connection_type_e type, void* self) {
    static_cast<Console*>(self)->report("type " + describe(type));
}

void Console::on_profile(connection_profile_state_e state, void* profile) {
    const auto* watched = static_cast<WatchedProfile*>(profile);
    watched->console->report("profile " + std::to_string(watched->number) + " " + describe(state));
}

// --- Commands ----------------------------------------------------------------

std::string Console::firmware(const std::string& /*argument*/) { return query_firmware(); }

std::string Console::get(const std::string& key) { return query_setting(key); }

std::string Console::watch_setting(const std::string& key) {
    return describe_result(vconf_notify_key_changed(key.c_str(), &Console::on_setting, this));
}

std::string Console::type(const std::string& /*argument*/) { return query_type(connection_); }

std::string Console::watch_type(const std::string& /*argument*/) {
    return describe_result(connection_set_type_changed_cb(connection_, &Console::on_type, this));
}

std::string Console::state(const std::string& name) {
    for (const StateQuery& query : state_queries) {
        if (name == query.name) {
            return query_state(connection_, query);
        }
    }
    return "unknown type " + name;
}

std::string Console::profiles(const std::string& /*argument*/) {
    return query_profiles(connection_, profiles_);
}

std::string Console::watch_profile(const std::string& number) {
    connection_profile_h profile = numbered(profiles_, number);
    if (profile == nullptr) {
        return "unknown profile " + number;
    }
    watched_profiles_.push_back(std::make_unique<WatchedProfile>(
        WatchedProfile{this, static_cast<std::size_t>(to_number(number))}));
    return describe_result(connection_profile_set_state_changed_cb(profile, &Console::on_profile,
                                                                   watched_profiles_.back().get()));
}

std::string Console::unwatch_profile(const std::string& number) {
    return describe_result(connection_profile_unset_state_changed_cb(numbered(profiles_, number)));
}

std::string Console::log(const std::string& argument) {
    const std::size_t blank = argument.find(' ');
    if (blank == std::string::npos) {
        return "requires a priority and a message";
    }
    return std::to_string(__dlog_print(PLATFORM_LOG_MAIN, to_number(argument), log_tag, "%s",
                                       argument.c_str() + blank + 1));
}

std::string Console::log_burst(const std::string& count) {
    for (int i = 0; i < to_number(count); ++i) {
        __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, log_tag, "burst %d", i);
    }
    return "ok";
}

std::string Console::hold(const std::string& /*argument*/) {
    is_held_ = true;
    return "ok";
}

std::string Console::release(const std::string& /*argument*/) {
    is_held_ = false;
    return "ok";
}

}  // namespace platform_probe
