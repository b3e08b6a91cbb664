/** What the tests of this platform have in common: the services, and the probe on them. */
#ifndef PLATFORM_LINUX_PLATFORM_TEST_H
#define PLATFORM_LINUX_PLATFORM_TEST_H

#include "../support/line_process.h"
#include "../support/linux_services.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace platform_linux_test {

using namespace std::chrono_literals;
using test_support::services;
using test_support::shell;

/** Long enough for a loaded machine; nothing that works takes nearly as long. */
constexpr std::chrono::milliseconds PATIENCE = 8s;

/** The probe program (probe.cpp), with events that tests wait for. */
class Probe : public test_support::LineProcess {
public:
    /** @param prefix  a command to run it with, such as env(1) with arguments */
    explicit Probe(std::vector<std::string> prefix = {}) : LineProcess(command(prefix)) {}

    /** Sends a command and gives its answer, without the time and the command's name. */
    std::string ask(const std::string& command);

    /** Asks until the answer is this one. */
    testing::AssertionResult comes_to(const std::string& command, const std::string& answer);

    /** Waits for an event, passing over others. */
    testing::AssertionResult sees(const std::string& event);

    /** No such event is there or comes within the time; forgets all others. */
    testing::AssertionResult sees_no(const std::string& event, std::chrono::milliseconds time);

private:
    static std::vector<std::string> command(std::vector<std::string> prefix) {
        prefix.emplace_back(PROBE);
        return prefix;
    }
};

/** Every service runs, no setting is set, no profile exists and the cable is plugged in. */
class PlatformTest : public testing::Test {
protected:
    void SetUp() override;

    /** Runs a shell command that has to succeed. */
    static void must(const std::string& command);
    static void service(const std::string& arguments);

    static void write_setting(const std::string& key, const std::string& value);

    /** Waits until NetworkManager is in this state, and the platform has had time to see it. */
    static void await_network(const std::string& state);

    /** Adds a profile for the wired port, which NetworkManager activates at once. */
    static void add_wired(const std::string& name, const std::string& more = "");
};

/** The microseconds that one of the probe's lines begins with. */
long time_of(const std::string& line);

}  // namespace platform_linux_test

#endif
