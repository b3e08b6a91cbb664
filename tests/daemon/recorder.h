/**
 * Stands in for everything that the daemon reaches outside itself: the
 * platform's functions, the dynamic loader and the agent library, the C library
 * calls that run, wait for or look at something, and the main loop. Each writes
 * one line to the transcript and answers as the Device says.
 *
 * A log statement's line is the function that it came from, with the file's
 * name in front ("ADUtils.ad_mount") unless that is CADAgentd.cpp, then "N" or
 * "E", and the message. A line break shows as \n, a blank at the end as \s.
 */
#ifndef RECORDER_H
#define RECORDER_H

#include "CADAgentd.h"

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

/** What the settings store's callbacks are given. */
struct settings_keynode {
    std::string name;
    int type;
    int value;
};

namespace daemon_tests {

struct Device {
    /** The directory that the device's paths are in. */
    std::string root;
    /** What "{name}" stands for in paths and steps, beside the names of steps.cpp. */
    std::map<std::string, std::string> names;
    int connection_type = 1;
    int connection_state = 2;
    /** The registered profiles' types, in order. */
    std::vector<int> profiles = {1};
    int consent = 1;
    /** Results of the platform function, or wait statuses of commands with the text; then 0. */
    std::map<std::string, std::deque<int>> answers;
    /** The manifest inside the stored image; empty for none. */
    std::string image_manifest = "<Zel><Version>1.05</Version></Zel>";
    /** Files that exist and cannot be opened. */
    std::set<std::string> unreadable;
    /** Libraries and symbols that come with the loader's error "broken", and those not found. */
    std::set<std::string> loader_errors, not_found;
    int update_result = 0;
    std::string so_version = "1.05";
    bool loop_can_be_made = true;
    bool memory_is_full = false;
    /** Called at the end of each command, in each sleep, and as the main loop. */
    std::function<void()> on_command, on_sleep, in_loop;

    /** The callbacks that the daemon has registered, by settings key or function. */
    std::map<std::string, std::pair<void*, void*>> watches;

    Device& let(const std::string& name, const std::string& meaning);
    /** Makes a file and the directories above it, or with "/" at the end a directory. */
    Device& put(const std::string& path, const std::string& content = "");
    Device& remove(const std::string& path);
    /** Makes the next commands that contain a text end with status 2. */
    Device& fail(const std::string& text, int times = 1);
    /** Where the device keeps a path. */
    [[nodiscard]] std::string host_path(const std::string& path) const;
};

extern Device device;

void record(const std::string& line);

/** Records a call of a platform function and gives its next answer. */
int call(const std::string& function, const std::string& arguments = "called");

/** The lines so far, each between "- " and a line break; begins anew afterwards. */
std::string transcript();

/** Puts in what names stand for. */
std::string expand(const std::string& text);

/**
 * Takes the transcript and fails the test unless it follows the steps, which
 * line breaks or "|" separate. A step is a line of the transcript, a word of
 * steps.cpp that stands for several ("exists PATH", "ran COMMAND", "mounted"),
 * or "..." for any lines or none. "@FUNCTION" says for the "N" and "E" lines
 * that follow where they come from; before it, the meaning of the name "@" does.
 */
void follow_steps(const std::string& steps);

/** An operation's result, and what it wrote. */
#define EXPECT_RUN(operation, result, steps) \
    do {                                     \
        SCOPED_TRACE(#operation);            \
        EXPECT_EQ(operation, result);        \
        daemon_tests::follow_steps(steps);   \
    } while (false)

/** The same without a result. */
#define EXPECT_STEPS(operation, steps) EXPECT_RUN((operation, 0), 0, steps)

/** Has a device with a firmware library, the settings store's marker and an empty {opt_lib}. */
class DaemonTest : public testing::Test {
protected:
    DaemonTest();
    ~DaemonTest() override;
};

/** Has a controller that has started up on such a device. */
class ControllerTest : public DaemonTest {
protected:
    ControllerTest() { transcript(); }

    /** Runs an operation without the library. */
    template <typename Operation>
    auto without_library(Operation operation) {
        CADLibs* const libs = std::exchange(daemon_.m_pADLibHandler, nullptr);
        const auto result = operation();
        daemon_.m_pADLibHandler = libs;
        return result;
    }

    CADAgentd daemon_;
};

}  // namespace daemon_tests

#endif
