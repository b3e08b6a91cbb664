// The daemon when what it works with fails: it says so, goes on, and the next
// boot finds a device that can be updated.
#include "device.h"

namespace device_tests {

namespace fs = std::filesystem;

struct MounterCase {
    const char* option;
    const char* said;
    bool installed;
};

class FailingMounter : public testing::TestWithParam<MounterCase> {};

TEST_P(FailingMounter, IsReportedAndTheNextBootCompletes) {
    const Device device;
    device.break_mounter(GetParam().option);
    device.install("1.05");
    EXPECT_TRUE(device.logged(GetParam().said));
    EXPECT_EQ(device.recorded_version(), GetParam().installed ? "1.05" : "");

    device.repair_mounter();
    // A boot completes what was cut, if anything was stored, before it asks the server.
    device.install("1.06");
    device.run_update();
    device.expect_installed("1.06");
}

INSTANTIATE_TEST_SUITE_P(
    EachCommand, FailingMounter,
    testing::Values(
        MounterCase{"--create", "ad_mounter_create, system_cmd ad-mounter --create", false},
        MounterCase{"--mount", "[ad_mount] Mount failed !!", false},
        MounterCase{"--umount", "Umount /opt/usr/apps/zelADAgent failed.", true},
        MounterCase{"--replaceimg",
                    "[CADAgentd] Replace /opt/usr/apps/adagent/zelADAgent.img to "
                    "/opt/down/zels/zelADAgent_img/zelADAgent.img failed.",
                    false},
        MounterCase{"--copylib", "ad_copy failed in ad_copy_lib_fwk", false},
        MounterCase{"--copy_all", "ad_copy failed in ad_copy_player_res", false},
        MounterCase{"--remove", "[ad_copy_path] remove path [ad-mounter --remove", false}));

TEST(FailingContent, AnImageThatIsNotWhatItShouldBeIsNotStoredAndTheNextOneIs) {
    const Device device;
    // The tool says why, the daemon goes on, and nothing of the image is there.
    const auto expect_refused = [&device](const char* reason) {
        SCOPED_TRACE(reason);
        device.run_update();
        EXPECT_TRUE(device.logged("ad-mounter: --replaceimg:"));
        EXPECT_TRUE(device.logged(reason));
        EXPECT_TRUE(device.logged("[CADAgentd] Replace /opt/usr/apps/adagent/zelADAgent.img to"));
        EXPECT_FALSE(exists(device.opt("/down/zels/zelADAgent_img/zelADAgent.img")));
        EXPECT_FALSE(exists(device.agent_copy()));
        EXPECT_EQ(device.leftovers(), "");
    };
    const std::string tree = device.image_tree("1.05");
    device.publish_tree("1.06", tree);
    expect_refused("signed for another version");
    fs::remove(tree + "/zelADAgent.xml");
    device.publish_tree("1.05", tree);
    expect_refused("no readable manifest");
    write_file(device.home("/run/garbage.img"), std::string(100000, 'x'));
    device.publish_file("1.05", device.home("/run/garbage.img"));
    expect_refused("not a squashfs or erofs image");
    // As it comes when the server is somebody else's: everything fits but the signature.
    device.publish("1.05 --flipped");
    expect_refused("changed after it was signed");
    device.install("1.06");
    device.expect_installed("1.06");
}

class FailingServer : public testing::TestWithParam<const char*> {};

TEST_P(FailingServer, LeavesTheDaemonRunningAndTheNextBootCompletes) {
    const Device device;
    device.publish("1.05");
    write_file(device.opt("/etc/ad-agent.conf"),
               "[server]\nurl=\n[timeouts]\nconnect=1\nstall=1\ndocument=2\nimage=3\n");
    const ContentServer server(device.home());
    const std::string fault = GetParam();
    server.set_fault(fault);
    device.run_update(fault == "down" ? "--url http://127.0.0.1:9" : server.option());
    EXPECT_TRUE(device.logged("ad-agent: "));
    EXPECT_FALSE(device.logged("replace img file"));

    server.set_fault("");
    device.run_update(server.option());
    device.expect_installed("1.05");
}

INSTANTIATE_TEST_SUITE_P(Faults, FailingServer,
                         testing::Values("/images/* stall 1000", "/images/* cut 0", "* stall 1",
                                         "* garbage", "* status 500", "* redirect",
                                         "/images/* endless", "down"));

}  // namespace device_tests
