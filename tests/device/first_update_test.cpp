// The road that every device takes: firmware copy, download, installation,
// restart on the new copy.
#include "device.h"

#include <csignal>

namespace device_tests {

class FirstUpdate : public EachPlatform {};
ON_EACH_PLATFORM(FirstUpdate);

TEST_P(FirstUpdate, InstallsTheImageAndComesUpOnIt) {
    const std::string stale = device.usr_bin("/zels/zelADAgent/adplayer/res/stale.txt");
    write_file(stale, "from the firmware\n");
    device.publish("1.05");
    device.open_gate();
    ASSERT_TRUE(device.boot());

    EXPECT_TRUE(device.logged("Successfully get /usr/lib agent so"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
    EXPECT_EQ(device.requests("/AppsAd/v2"), 1);
    EXPECT_EQ(device.logged("[ad_mount] Mount done !!"), 2);
    EXPECT_EQ(device.logged("[ad_umount] umount done !!"), 2);
    device.expect_installed("1.05");
    EXPECT_TRUE(exists(device.opt("/usr/lib/libad-player-fwk.so")));
    EXPECT_FALSE(exists(device.opt("/usr/apps/adagent/zelADAgent.img")));
    EXPECT_FALSE(exists(stale));
    EXPECT_EQ(device.stop(), 0);
    EXPECT_EQ(device.leftovers(), "");

    device.install("1.04");
    EXPECT_TRUE(device.logged("Successfully get so"));
    EXPECT_TRUE(device.logged("Version = 1.05"));
    EXPECT_FALSE(device.logged("replace img file"));
    device.expect_installed("1.05");
    device.install("1.1");
    device.expect_installed("1.1");
}

#ifndef __SANITIZE_ADDRESS__
TEST(Update, LeaksNothingUnderValgrind) {
    const Device device;
    device.publish("1.05");
    device.open_gate();
    ASSERT_TRUE(
        device.boot(STARTED, "--under 'valgrind --quiet --leak-check=full --error-exitcode=99'"));
    device.expect_installed("1.05");
    device.set("language de_DE");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 2));
}
#endif

class Signals : public EachPlatform {};
ON_EACH_PLATFORM(Signals);

TEST_P(Signals, EndTheDaemonCleanly) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
        // The loop runs once the gate has been found closed.
        ASSERT_TRUE(device.boot("Please check network"));
        kill(device.daemon_pid(), signal);
        ASSERT_TRUE(device.await("reset signal handler to default"));
        EXPECT_TRUE(device.logged("adagentd is stopped by signal, which is [" +
                                  std::to_string(signal) + "]"));
        EXPECT_EQ(device.logged("[CADLibs] begine to dlclose."), 1);
        EXPECT_EQ(device.stop(), 0);
    }
}

}  // namespace device_tests
