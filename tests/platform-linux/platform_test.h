/** What the tests of this platform have in common: the services, and the probe on them. */
#ifndef PLATFORM_LINUX_PLATFORM_TEST_H
#define PLATFORM_LINUX_PLATFORM_TEST_H

#include "../support/line_process.h"
#include "../support/linux_services.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace platform_linux_test {

using namespace std::chrono_literals;
using test_support::LineProcess;
using test_support::services;
using test_support::shell;

/** Long enough for a loaded machine; nothing that works takes nearly as long. */
constexpr std::chrono::milliseconds PATIENCE = 8s;

/** A program whose lines tests wait for. */
class Program : public LineProcess {
public:
    using LineProcess::LineProcess;

    /** Waits for a line with a text, passing over others. */
    testing::AssertionResult sees(const std::string& text);

    /** No such line is there or comes within the time; forgets all others. */
    testing::AssertionResult sees_no(const std::string& text, std::chrono::milliseconds time);
};

/** The probe (probe.cpp), whose lines are answers and events. */
class Probe : public Program {
public:
    /** @param command  runs it, maybe through another such as env(1) */
    explicit Probe(const std::vector<std::string>& command = {PROBE}) : Program(command) {}

    /** Sends a command and gives its answer, without the time and the command's name. */
    std::string ask(const std::string& command);

    /** Asks until the answer is this one. */
    testing::AssertionResult comes_to(const std::string& command, const std::string& answer);
};

/** Every service runs, no setting is set, no profile exists and the cable is plugged in. */
class PlatformTest : public testing::Test {
protected:
    void SetUp() override;

    /** Runs a shell command that has to succeed. */
    static void must(const std::string& command);
    static void service(const std::string& arguments);
    static void write_setting(const std::string& key, const std::string& value);

    /** The cable is pulled out or plugged in, at its other end. */
    static void set_cable(const std::string& up_or_down) { must("ip link set far0 " + up_or_down); }

    /** Adds a profile for the wired port, which NetworkManager activates at once. */
    static void add_wired(const std::string& more = "ipv4.gateway 10.9.0.1");
    /** The same, and it is active. */
    static void connect_wired();
};

}  // namespace platform_linux_test

#endif
