// The road that every device takes: firmware copy, download, installation,
// restart on the new copy.
#include "device.h"

#include <gtest/gtest.h>

namespace device_tests {
namespace {

class FirstUpdate : public EachPlatform {};
ON_EACH_PLATFORM(FirstUpdate);

TEST_P(FirstUpdate, InstallsTheImageAndComesUpOnIt) {
    write_file(device.usr_bin("/zels/zelADAgent/adplayer/res/stale.txt"), "from the firmware\n");
    device.publish("1.05");
    device.open_gate();
    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));

    EXPECT_TRUE(device.logged("Successfully get /usr/lib agent so"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
    EXPECT_EQ(device.requests("/AppsAd/v2"), 1);
    EXPECT_EQ(device.count("[ad_mount] Mount done !!"), 2);
    EXPECT_EQ(device.count("[ad_umount] umount done !!"), 2);
    EXPECT_TRUE(device.updatable_copy_is_published());
    EXPECT_TRUE(exists(device.opt("/usr/lib/libad-player-fwk.so")));
    EXPECT_EQ(device.recorded_version(), "1.05");
    EXPECT_FALSE(exists(device.opt("/usr/apps/adagent/zelADAgent.img")));
    EXPECT_FALSE(exists(device.usr_bin("/zels/zelADAgent/adplayer/res/stale.txt")));
    EXPECT_EQ(device.stop(), 0);
    EXPECT_EQ(device.leftovers(), "");

    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_TRUE(device.logged("Successfully get so"));
    EXPECT_TRUE(device.logged("Version = 1.05"));
    EXPECT_FALSE(device.logged("replace img file"));
    EXPECT_EQ(device.stop(), 0);
}

TEST(NextUpdate, TakesANewerImageAndOnlyThat) {
    const Device device;
    device.publish("1.05");
    device.run_update();
    device.publish("1.04");
    device.run_update();
    EXPECT_EQ(device.recorded_version(), "1.05");
    device.publish("1.1");
    device.run_update();
    EXPECT_EQ(device.recorded_version(), "1.1");
    EXPECT_EQ(device.leftovers(), "");
}

#ifndef __SANITIZE_ADDRESS__
TEST(NextUpdate, LeaksNothingUnderValgrind) {
    const Device device;
    device.publish("1.05");
    device.open_gate();
    device.start({"--under", "valgrind --quiet --leak-check=full --error-exitcode=99"});
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_TRUE(device.updatable_copy_is_published());
    device.set("language", "de_DE");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 2));
    EXPECT_EQ(device.stop(), 0) << device.log();
}
#endif

class Signals : public EachPlatform {};
ON_EACH_PLATFORM(Signals);

TEST_P(Signals, EndTheDaemonCleanly) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
        device.start();
        // The loop runs once the gate has been found closed.
        ASSERT_TRUE(device.await("Please check network"));
        kill(device.daemon_pid(), signal);
        ASSERT_TRUE(device.await("reset signal handler to default"));
        EXPECT_TRUE(device.logged("adagentd is stopped by signal, which is [" +
                                  std::to_string(signal) + "]"));
        EXPECT_EQ(device.count("[CADLibs] begine to dlclose."), 1);
        EXPECT_EQ(device.stop(), 0);
    }
}

}  // namespace
}  // namespace device_tests
