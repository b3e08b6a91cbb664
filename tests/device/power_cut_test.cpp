// Cuts an update at every point that can be told apart from outside, and wants
// the next boot to end on one whole version with nothing left over.
#include "device.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace device_tests {
namespace {

namespace fs = std::filesystem;

constexpr const char* OLD = "1.05";
constexpr const char* NEW = "1.06";

class PowerCut : public testing::Test {
protected:
    /** A device on the old version, with the new one published, kept to be put back. */
    void SetUp() override {
        publish(OLD);
        device.run_update();
        ASSERT_EQ(versions(), std::string(OLD) + " " + OLD + " " + OLD + " " + OLD);
        publish(NEW);
        keep("run/kept", "");
    }

    void put_back() const { keep("", "run/kept/"); }

    /** Agent library, player library, resources and cache manifest, as versions. */
    std::string versions() const {
        return tail(device.opt("/usr/lib/libad-agent-fwk.so")) + " " +
               tail(device.opt("/usr/lib/libad-player-fwk.so")) + " " +
               tail(device.usr_bin("/zels/zelADAgent/adplayer/res/version")) + " " +
               device.recorded_version();
    }

    void expect_new_version_after_a_boot(const std::string& point) const {
        device.repair_mounter();
        device.run_update();
        EXPECT_EQ(versions(), std::string(NEW) + " " + NEW + " " + NEW + " " + NEW) << point;
        EXPECT_EQ(device.leftovers(), "") << point;
    }

    const Device device;

private:
    /** An image whose every file ends in its version. */
    void publish(const std::string& version) const {
        const std::string folder = device.home("/run/tree");
        const std::string libraries = std::string(BUILD_FOLDER) + "/lib/";
        fs::remove_all(folder);
        for (const char* name : {"libad-agent-fwk.so", "libad-player-fwk.so"}) {
            write_file(folder + "/" + name, read_file(libraries + name) + "=" + version);
        }
        write_file(folder + "/adplayer/res/version", "=" + version);
        write_file(folder + "/zelADAgent.xml", "<Zel><Version>" + version + "</Version></Zel>");
        device.publish_tree(version, folder);
    }

    static std::string tail(const std::string& path) {
        const std::string bytes = read_file(path);
        const size_t mark = bytes.rfind('=');
        return mark == std::string::npos ? "none" : bytes.substr(mark + 1);
    }

    /** Copies what the device keeps over a power cut from one place to another. */
    void keep(const std::string& to, const std::string& from) const {
        for (const char* part : {"opt", "usr-bin", "usr-lib"}) {
            const std::string target = device.home("/" + to + (to.empty() ? "" : "/") + part);
            fs::remove_all(target);
            fs::create_directories(fs::path(target).parent_path());
            const Outcome copied = run({"cp", "-a", device.home("/" + from + part), target});
            ASSERT_EQ(copied.status, 0) << copied.output;
        }
    }
};

/** What the script in front of ad-mounter does at the command whose turn it is. */
struct Cut {
    const char* name;
    const char* script;
    bool survives;  // the daemon does
};

class AtEachCommand : public PowerCut, public testing::WithParamInterface<Cut> {};

TEST_P(AtEachCommand, TheNextBootEndsOnTheNewVersion) {
    device.run_update();
    const int commands = device.count("system command:[ad-mounter");
    ASSERT_GT(commands, 8);
    for (int turn = 1; turn <= commands; ++turn) {
        put_back();
        // Counts on a tmpfs of the device, so that each boot counts anew.
        device.replace_mounter(
            "n=$(($(cat /run/turn 2>/dev/null || echo 0) + 1))\n"
            "echo $n >/run/turn\n"
            "[ $n != " +
            std::to_string(turn) +
            " ] || {\n"
            "cut() { pkill -KILL -x adagentd; sleep 10; }\n" +
            GetParam().script + "\n}\n");
        device.open_gate();
        device.start();
        ASSERT_TRUE(poll([&] {
            return !device.running() || device.logged("[CADAgentd] Start end");
        })) << turn;
        // The turn came: the daemon is gone, or its command failed.
        EXPECT_EQ(device.logged("[CADAgentd] Start end"), GetParam().survives) << turn;
        device.stop();
        expect_new_version_after_a_boot("command " + std::to_string(turn));
    }
    printf("%d points tried\n", commands);
}

INSTANTIATE_TEST_SUITE_P(
    Killed, AtEachCommand,
    testing::Values(Cut{"DaemonBefore", "cut", false},
                    Cut{"DaemonAfter", "ad-mounter.real \"$@\"; cut", false},
                    Cut{"Both", "ad-mounter.real \"$@\" & cut", false},
                    Cut{"Tool", "ad-mounter.real \"$@\" & sleep 0.001; kill -KILL $!; exit 1",
                        true}),
    [](const auto& cut) { return cut.param.name; });

TEST_F(PowerCut, AtEachTenthOfTheDownload) {
    constexpr int TENTHS = 10;
    const auto size = fs::file_size(device.home("/www/images/by-hand-1.06.img"));
    const ContentServer server(device.home(""));

    for (int tenth = 0; tenth < TENTHS; ++tenth) {
        put_back();
        server.set_fault("/images/* stall " + std::to_string(size * tenth / TENTHS) + "\n");
        const std::string part = device.opt("/usr/apps/adagent/zelADAgent.img.part");
        device.open_gate();
        device.start({"--url", server.url()});
        ASSERT_TRUE(poll([&] {
            std::error_code error;
            const auto arrived = fs::file_size(part, error);
            return !error && arrived >= size * tenth / TENTHS;
        })) << tenth;
        device.command({"kill"});
        server.set_fault("");
        device.start({"--url", server.url()});
        ASSERT_TRUE(device.await("[CADAgentd] Start end"));
        device.stop();
        EXPECT_EQ(versions(), std::string(NEW) + " " + NEW + " " + NEW + " " + NEW) << tenth;
        EXPECT_EQ(device.leftovers(), "") << tenth;
    }
    printf("%d points tried\n", TENTHS);
}

}  // namespace
}  // namespace device_tests
