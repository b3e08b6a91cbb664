#pragma once

#include "base/glib_owned.h"
#include "network_connection.h"
#include "settings_store.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>

namespace platform_probe {

/**
 * Runs the main loop on a client of the platform, executes commands and prints
 * their results and the platform's callbacks.
 *
 * Each printed line begins with the time, in microseconds of CLOCK_MONOTONIC, and
 * "=" for the result of a command or "*" for a callback.
 */
class Console {
public:
    Console();
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /** The list of commands, for a help text. */
    static const char* help();

    /** Prints the result of every query, and of those settings. */
    void show(const std::vector<std::string>& keys);

    /** Shows everything, watches everything and runs the main loop until SIGINT or SIGTERM. */
    void watch(const std::vector<std::string>& keys);

    /** Executes the commands on standard input, until its end. */
    void read_commands();

    /** Whether every callback came on the main loop's thread. */
    bool is_every_callback_on_thread() const { return is_every_callback_on_thread_; }

private:
    struct Command {
        const char* name;
        /** Returns the result to print. */
        std::string (Console::*execute)(const std::string& argument);
    };
    /** The user data of a profile's callback. */
    struct WatchedProfile {
        Console* console;
        std::size_t number;
    };

    static const std::vector<Command> commands;

    static void on_setting(keynode_t* node, void* self);
    static void on_type(connection_type_e type, void* self);
    static void on_profile(connection_profile_state_e state, void* profile);
    static gboolean on_input(GIOChannel* input, GIOCondition condition, void* self);
    static gboolean on_stop(void* self);

    std::string firmware(const std::string& argument);
    std::string get(const std::string& key);
    std::string watch_setting(const std::string& key);
    std::string type(const std::string& argument);
    std::string watch_type(const std::string& argument);
    std::string state(const std::string& name);
    std::string profiles(const std::string& argument);
    std::string watch_profile(const std::string& number);
    std::string unwatch_profile(const std::string& number);
    std::string log(const std::string& argument);
    std::string log_burst(const std::string& count);
    std::string hold(const std::string& argument);
    std::string release(const std::string& argument);

    static void print(char mark, const std::string& text);
    void report(const std::string& change);
    std::string execute(const std::string& line);

    const std::thread::id main_thread_ = std::this_thread::get_id();
    const base::Owned<GMainLoop> loop_;
    connection_h connection_ = nullptr;
    std::vector<connection_profile_h> profiles_;
    std::vector<std::unique_ptr<WatchedProfile>> watched_profiles_;
    bool is_held_ = false;
    bool is_every_callback_on_thread_ = true;
};

}  // namespace platform_probe
