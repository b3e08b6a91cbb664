// Cuts an update at every point that can be told apart from outside, and wants
// the next boot to end on one whole version with nothing left over.
#include "device.h"

namespace device_tests {

namespace fs = std::filesystem;

class PowerCut : public testing::Test {
protected:
    /** A device on the old version, with the new one published, kept to be put back. */
    void SetUp() override {
        publish("1.05");
        device.run_update();
        expect_whole("1.05", "before");
        publish("1.06");
        keep("run/kept", ".");
    }

    void put_back() const { keep(".", "run/kept"); }

    /** Libraries, resources and cache manifest are of this version, and nothing else is there. */
    void expect_whole(const std::string& version, const std::string& point) const {
        for (const std::string& path :
             {device.agent_copy(), device.opt("/usr/lib/libad-player-fwk.so"),
              device.usr_bin("/zels/zelADAgent/adplayer/res/version")}) {
            const std::string bytes = read_file(path);
            EXPECT_EQ(bytes.substr(bytes.rfind('=') + 1), version) << path << " " << point;
        }
        EXPECT_EQ(device.recorded_version(), version) << point;
        EXPECT_EQ(device.leftovers(), "") << point;
    }

    const Device device;

private:
    /** An image whose every file ends in its version. */
    void publish(const std::string& version) const {
        device.publish_tree(version, device.image_tree(version, "=" + version));
    }

    /** Copies what the device keeps over a power cut from one place to another. */
    void keep(const std::string& to, const std::string& from) const {
        const Outcome copied = shell("cd '" + device.home() + "' && mkdir -p " + to +
                                     " && for part in opt usr-bin usr-lib; do rm -rf " + to +
                                     "/$part && cp -a " + from + "/$part " + to + " || exit; done");
        ASSERT_EQ(copied.status, 0) << copied.output;
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
    const int commands = device.logged("system command:[ad-mounter");
    ASSERT_GT(commands, 8);
    for (int turn = 1; turn <= commands; ++turn) {
        const std::string number = std::to_string(turn);
        put_back();
        // Counts on a tmpfs of the device, so that each boot counts anew.
        device.replace_mounter(
            "n=$(($(cat /run/turn 2>/dev/null || echo 0) + 1))\n"
            "echo $n >/run/turn\n"
            "cut() { pkill -KILL -x adagentd; sleep 10; }\n"
            "[ $n != " +
            number + " ] || { " + GetParam().script + "; }\n");
        device.open_gate();
        device.start();
        ASSERT_TRUE(poll([&] { return !device.running() || device.logged(STARTED); })) << turn;
        // The turn came: the daemon is gone, or its command failed.
        EXPECT_EQ(device.logged(STARTED), GetParam().survives) << turn;
        device.stop();
        device.repair_mounter();
        device.run_update();
        expect_whole("1.06", "at command " + number);
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
    const std::string part = device.opt("/usr/apps/adagent/zelADAgent.img.part");
    const ContentServer server(device.home());
    for (int tenth = 0; tenth < TENTHS; ++tenth) {
        put_back();
        server.set_fault("/images/* stall " + std::to_string(size * tenth / TENTHS));
        device.open_gate();
        device.start(server.option());
        ASSERT_TRUE(poll([&] {
            std::error_code error;
            const auto arrived = fs::file_size(part, error);
            return !error && arrived >= size * tenth / TENTHS;
        })) << tenth;
        device.command("kill");
        server.set_fault("");
        device.run_update(server.option());
        expect_whole("1.06", "at tenth " + std::to_string(tenth));
    }
    printf("%d points tried\n", TENTHS);
}

}  // namespace device_tests
