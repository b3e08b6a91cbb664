// The daemon when what it works with fails: it says so, goes on, and the next
// boot finds a device that can be updated.
#include "device.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace device_tests {
namespace {

namespace fs = std::filesystem;

struct MounterCase {
    const char* option;
    const char* said;
    bool installed;
};

class FailingMounter : public testing::TestWithParam<MounterCase> {};

TEST_P(FailingMounter, IsReportedAndTheNextBootCompletes) {
    const Device device;
    device.publish("1.05");
    device.break_mounter(GetParam().option);
    device.run_update();
    EXPECT_TRUE(device.logged(GetParam().said));
    EXPECT_EQ(device.recorded_version(), GetParam().installed ? "1.05" : "");

    device.repair_mounter();
    device.publish("1.06");
    // A boot completes what was cut, if anything was stored, before it asks the server.
    device.run_update();
    device.run_update();
    EXPECT_EQ(device.recorded_version(), "1.06");
    EXPECT_TRUE(device.updatable_copy_is_published());
    EXPECT_EQ(device.leftovers(), "");
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

class FailingContent : public testing::Test {
protected:
    /** A tree like an image's, for images that the packer would not make. */
    std::string tree() const {
        const std::string folder = device.home("/run/tree");
        const std::string libraries = std::string(BUILD_FOLDER) + "/lib/";
        fs::create_directories(folder + "/adplayer/res");
        for (const char* name : {"libad-agent-fwk.so", "libad-player-fwk.so"}) {
            fs::copy(libraries + name, folder + "/" + name);
        }
        write_file(folder + "/adplayer/res/one.txt", "one");
        write_file(folder + "/zelADAgent.xml", "<Zel><Version>1.05</Version></Zel>");
        return folder;
    }

    void install(const std::string& folder) const {
        device.publish_tree("1.05", folder);
        device.run_update();
    }

    /** The tool said why, the daemon went on, and nothing of the image is there. */
    void expect_refused(const char* reason) const {
        EXPECT_TRUE(device.logged("ad-mounter: --replaceimg:"));
        EXPECT_TRUE(device.logged(reason));
        EXPECT_TRUE(device.logged("[CADAgentd] Replace /opt/usr/apps/adagent/zelADAgent.img to"));
        EXPECT_FALSE(exists(device.opt("/down/zels/zelADAgent_img/zelADAgent.img")));
        EXPECT_FALSE(exists(device.opt("/usr/lib/libad-agent-fwk.so")));
        EXPECT_EQ(device.leftovers(), "");
    }

    const Device device;
};

TEST_F(FailingContent, AnImageWithoutAManifestIsNotStored) {
    const std::string folder = tree();
    fs::remove(folder + "/zelADAgent.xml");
    install(folder);
    expect_refused("it has no manifest");
}

TEST_F(FailingContent, AnImageOfAnotherVersionThanItsSignaturesIsNotStored) {
    device.publish_tree("1.06", tree());
    device.run_update();
    expect_refused("it is signed for another version");
}

// As it comes when the server is somebody else's: everything fits but the signature.
TEST_F(FailingContent, AFlippedByteIsRefusedAndTheNextImageIsInstalled) {
    device.command({"publish", "1.05", "--flipped"});
    device.run_update();
    expect_refused("it was changed after it was signed");
    device.publish("1.06");
    device.run_update();
    EXPECT_EQ(device.recorded_version(), "1.06");
    EXPECT_TRUE(device.updatable_copy_is_published());
    EXPECT_EQ(device.leftovers(), "");
}

TEST_F(FailingContent, AnImageWithoutAPlayerLibraryStopsThere) {
    const std::string folder = tree();
    fs::remove(folder + "/libad-player-fwk.so");
    install(folder);
    EXPECT_TRUE(device.logged("ad_copy failed in ad_copy_lib_player"));
    EXPECT_TRUE(device.updatable_copy_is_published());
    EXPECT_EQ(device.recorded_version(), "");
    EXPECT_EQ(device.leftovers(), "");
}

TEST_F(FailingContent, AFileThatIsNoImageIsNotStored) {
    const std::string image = device.home("/run/garbage.img");
    write_file(image, std::string(100000, 'x'));
    device.publish_file("1.05", image);
    device.run_update();
    expect_refused("neither squashfs nor erofs");
}

TEST_F(FailingContent, ADownServerLeavesTheDaemonRunning) {
    device.open_gate();
    device.start({"--url", "http://127.0.0.1:9"});
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_TRUE(device.logged("ad-agent: "));
    EXPECT_EQ(device.stop(), 0);
}

class FailingServer : public testing::TestWithParam<const char*> {};

TEST_P(FailingServer, LeavesTheDaemonRunningAndTheNextBootCompletes) {
    const Device device;
    device.publish("1.05");
    write_file(device.opt("/etc/ad-agent.conf"),
               "[server]\nurl=\n[timeouts]\nconnect=1\nstall=1\ndocument=2\nimage=3\n");
    const ContentServer server(device.home(""));
    server.set_fault(GetParam());

    device.open_gate();
    device.start({"--url", server.url()});
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_FALSE(device.logged("replace img file"));
    EXPECT_EQ(device.stop(), 0);

    server.set_fault("");
    device.start({"--url", server.url()});
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_EQ(device.recorded_version(), "1.05");
    EXPECT_EQ(device.stop(), 0);
    EXPECT_EQ(device.leftovers(), "");
}

INSTANTIATE_TEST_SUITE_P(Faults, FailingServer,
                         testing::Values("/images/* stall 1000\n", "/images/* cut 0\n",
                                         "* stall 1\n", "* garbage\n", "* status 500\n",
                                         "* redirect\n", "/images/* endless\n"));

TEST_F(FailingContent, ADownloadThatIsNotWhatWasPublishedIsRefused) {
    device.publish("1.05");
    for (const auto& entry : fs::directory_iterator(device.home("/www/images"))) {
        std::string bytes = read_file(entry.path());
        bytes[bytes.size() / 2] ^= 1;
        write_file(entry.path(), bytes);
    }
    device.run_update();
    EXPECT_FALSE(device.logged("replace img file"));
    EXPECT_FALSE(exists(device.opt("/usr/lib/libad-agent-fwk.so")));
    EXPECT_EQ(device.leftovers(), "");
}

}  // namespace
}  // namespace device_tests
