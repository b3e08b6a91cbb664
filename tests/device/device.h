/**
 * A device under test: the real daemon, tool, agent library and platform in
 * namespaces of their own, driven through device/ad-device as a person would.
 */
#ifndef TESTS_DEVICE_DEVICE_H
#define TESTS_DEVICE_DEVICE_H

#include "../support/line_process.h"

#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace device_tests {

using std::filesystem::exists;
using test_support::LineProcess;
using test_support::Outcome;
using test_support::shell;

/** What the daemon says when it has done all that it does by itself after a start. */
inline const std::string STARTED = "[CADAgentd] Start end";

/** The content server that can misbehave, in the background. */
class ContentServer {
public:
    /** Serves a device's content; its faults are those of a file, none to begin with. */
    explicit ContentServer(const std::string& device_home);
    void set_fault(const std::string& line) const;
    /** What a device that is to use it is started with. */
    std::string option() const { return "--url http://127.0.0.1:" + port_; }

private:
    std::string run_;
    LineProcess server_;
    std::string port_;
};

class Device {
public:
    /** Makes a fresh device, named after the running test, with its waits cut short. */
    explicit Device(const std::string& platform = "simulated");
    /** Stops it: its daemon ends well, and it leaves nothing. */
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /** The shell's command line of an ad-device command. */
    std::string command_line(const std::string& command) const;
    /** Runs an ad-device command and gives its output; fails the test unless it succeeds. */
    std::string command(const std::string& command) const;

    void set(const std::string& what) const { command("set " + what); }
    /** Network up and consent given. */
    void open_gate() const;
    void publish(const std::string& version) const { command("publish " + version); }
    /** Signs and publishes an image of a folder, or a file: what the packer would refuse. */
    void publish_tree(const std::string& version, const std::string& folder) const;
    void publish_file(const std::string& version, const std::string& plain) const;
    /** Makes a folder with what an image holds, with a mark at its libraries' ends. */
    std::string image_tree(const std::string& version, const std::string& mark = "") const;

    void start(const std::string& options = "") const;
    /** Starts it and waits for a text in the daemon's log. */
    bool boot(const std::string& text = STARTED, const std::string& options = "") const;
    /** SIGTERM and the end; gives the daemon's exit status. */
    int stop() const;
    /** Boots with the gate open and runs until the update's end, then stops. */
    void run_update(const std::string& options = "") const;
    /** The same with a version that is published first. */
    void install(const std::string& version) const;

    bool running() const { return command("status").find("on\n") < 20; }
    /** The daemon as this machine numbers it. */
    int daemon_pid() const { return std::stoi(command("pid")); }

    /** Puts a script in front of ad-mounter that fails the given option and passes on the rest. */
    void break_mounter(const std::string& option) const;
    /** Puts a script of the shell in front of ad-mounter, which runs after it. */
    void replace_mounter(const std::string& script) const;
    void repair_mounter() const;

    /** The path of a file of the device, seen from outside. */
    std::string opt(const std::string& path) const { return home("/opt" + path); }
    std::string usr_bin(const std::string& path) const { return home("/usr-bin/upper" + path); }
    std::string home(const std::string& path = "") const { return home_ + path; }
    std::string agent_copy() const { return opt("/usr/lib/libad-agent-fwk.so"); }

    /** Waits for a text in the daemon's log of this boot. */
    bool await(const std::string& text) const;
    /** How many lines of that log hold a text. */
    int logged(const std::string& text) const;
    /** How often the device's server answered a request for a path; waits for that number. */
    int requests(const std::string& path) const;
    bool await_requests(const std::string& path, int wanted) const;

    /** The version in the cache manifest, or "". */
    std::string recorded_version() const;
    /** That version is installed: it is recorded, and the agent library is the published one. */
    void expect_installed(const std::string& version) const;
    /** What a device must not leave: mounts of the image, loop devices, files aside. */
    std::string leftovers() const;

private:
    std::string home_;
};

/** A scenario that goes the same way on every platform. */
class EachPlatform : public testing::TestWithParam<const char*> {
protected:
    const Device device{GetParam()};
};

#define ON_EACH_PLATFORM(Suite)                                                \
    INSTANTIATE_TEST_SUITE_P(On, Suite, testing::Values("simulated", "linux"), \
                             [](const auto& platform) { return std::string(platform.param); })

/** Waits until a condition holds, with more patience than any test needs. */
bool poll(const std::function<bool()>& condition);
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);

}  // namespace device_tests

#endif
