#include "platform_test.h"

#include <thread>

namespace platform_linux_test {

namespace {

const char* const RESTORE = R"(
rm -f /run/go-on
mountpoint -q /etc/os-release && umount /etc/os-release
for link in $(ip -o link | sed -n 's/^[0-9]*: \(test[a-z0-9]*\).*/\1/p'); do ip link del $link; done
ip link set far0 up
dconf reset -f /
for uuid in $(nmcli -g UUID,TYPE connection | sed -n 's/:loopback$//;t;s/:.*//p'); do
    nmcli -t connection delete $uuid
done
)";

}  // namespace

testing::AssertionResult Program::sees(const std::string& text) {
    if (await(text, PATIENCE)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << text << "\" in:\n" << transcript();
}

testing::AssertionResult Program::sees_no(const std::string& text, std::chrono::milliseconds time) {
    if (!await(text, time)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << text << "\" in:\n" << transcript();
}

std::string Probe::ask(const std::string& command) {
    const std::string name = " " + command.substr(0, command.find(' ')) + " ";
    const auto line = LineProcess::ask(command, name, PATIENCE);
    return line ? line->substr(line->find(name) + name.size()) : "no answer to " + command;
}

testing::AssertionResult Probe::comes_to(const std::string& command, const std::string& answer) {
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    std::string last;
    do {
        last = ask(command);
        if (last == answer) return testing::AssertionSuccess();
        std::this_thread::sleep_for(5ms);
    } while (std::chrono::steady_clock::now() < end);
    return testing::AssertionFailure() << command << " still gives " << last;
}

void PlatformTest::SetUp() {
    if (!test_support::in_linux_services()) GTEST_SKIP() << test_support::NO_NAMESPACES;
    static bool fresh = true;
    if (!fresh) {
        services("resume");
        service("start");
        shell(RESTORE);
    }
    fresh = false;
}

void PlatformTest::must(const std::string& command) {
    const test_support::Outcome outcome = shell(command);
    ASSERT_EQ(outcome.status, 0) << command << "\n" << outcome.output;
}

void PlatformTest::service(const std::string& arguments) {
    const test_support::Outcome outcome = services(arguments);
    ASSERT_EQ(outcome.status, 0) << arguments << "\n" << outcome.output;
}

void PlatformTest::write_setting(const std::string& key, const std::string& value) {
    must("dconf write /" + key + " \"" + value + "\"");
}

void PlatformTest::add_wired(const std::string& more) {
    must(
        "nmcli -t connection add type ethernet con-name wired ifname eth0 ipv4.method manual "
        "ipv4.addresses 10.9.0.2/24 ipv6.method disabled " +
        more);
}

void PlatformTest::connect_wired() {
    add_wired();
    must("nmcli connection up wired");
}

}  // namespace platform_linux_test

int main(int argc, char** argv) {
    test_support::enter_linux_services(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
