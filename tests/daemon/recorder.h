/**
 * Stands in for everything that the daemon reaches outside itself: the
 * platform's functions, the dynamic loader and the agent library, the main loop,
 * and the C library's functions that run, wait for, open or look at something.
 * Each writes a line to the transcript and answers as the Device says.
 */
#pragma once

#include "settings_store.h"

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/** What the settings store's callbacks are given. */
struct settings_keynode {
    std::string name;
    int type;
    int value;
};

namespace daemon_tests {

/** The device that the daemon runs on; see transcript_test.cpp for what changes it. */
struct Device {
    /** Whether the files that the program opens are the device's, in this directory. */
    bool is_on = false;
    std::string root;
    /** The type and the state of the current connection. */
    std::vector<int> connection = {1, 2};
    /** The registered profiles' types, in order. */
    std::vector<int> profiles = {1};
    int consent = 1;
    keynode_t node = {"some/key", 41, 1};
    /** Results of the platform function, or wait statuses of commands with the text; then 0. */
    std::map<std::string, std::deque<int>> answers;
    /** Functions that throw. */
    std::set<std::string> throws;
    /** The manifest inside the stored image; empty for none. */
    std::string image_manifest = "<Zel><Version>1.05</Version></Zel>";
    /** Files that exist and cannot be opened. */
    std::set<std::string> unreadable;
    /** Libraries and symbols for which the loader reports "broken", and those it does not find. */
    std::set<std::string> loader_errors, not_found;
    int update_result = 0;
    std::string so_version = "1.05";
    bool has_loop = true;
    bool memory_is_full = false;
    /** Called at each event: "command" (at its end), "sleep" and "loop". */
    std::function<void(const std::string& event)> on_event;
    /** The names of pointers in the transcript. */
    std::map<const void*, std::string> pointers;
    /** The user data of the first callback that the daemon has registered. */
    const void* controller = nullptr;
    /** The firmware version that the daemon has been given and has not freed. */
    const void* firmware_version = nullptr;

    /** The path on this machine of a path on the device. */
    [[nodiscard]] std::string host_path(const std::string& path) const { return root + path; }
    /** Creates a file and the directories above it, or a directory when the path ends in "/". */
    void put(const std::string& path, const std::string& content = "") const;
    void remove(const std::string& path) const;
};

extern Device device;

/** Adds a line to the transcript. */
void record(const std::string& line);

/** Takes the lines recorded so far, each with a line break. */
std::string take_record();

/** Records a call of a platform function and returns its next answer. */
int call(const std::string& function, const std::string& arguments = "");

/** The name of a pointer in the transcript. */
std::string name(const void* pointer);

}  // namespace daemon_tests
