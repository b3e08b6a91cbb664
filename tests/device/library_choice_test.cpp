// Which copy of the library a boot ends up on.
#include "device.h"

namespace device_tests {

class LibraryChoice : public EachPlatform {
protected:
    /** A device that has version 1.05 installed and boots with the gate closed from now on. */
    void SetUp() override {
        device.install("1.05");
        device.expect_installed("1.05");
        device.set("network down");
    }

    void boot_and_stop() const {
        ASSERT_TRUE(device.boot("Please check network"));
        EXPECT_EQ(device.stop(), 0);
    }
};
ON_EACH_PLATFORM(LibraryChoice);

TEST_P(LibraryChoice, AnUpdatableCopyThatDoesNotLoadIsDiscarded) {
    write_file(device.agent_copy(), "not a library");
    boot_and_stop();
    EXPECT_TRUE(device.logged("Can't dlopen /opt/usr/lib/libad-agent-fwk.so"));
    EXPECT_TRUE(device.logged("Successfully get /usr/lib agent so"));
    EXPECT_FALSE(exists(device.agent_copy()));
    EXPECT_TRUE(exists(device.opt("/usr/lib")));
    EXPECT_TRUE(device.logged("Save Firm File done : T-1200.1"));
    EXPECT_TRUE(device.logged("version 1.05 failed to load: its image will not be taken again"));
}

TEST_P(LibraryChoice, AFirmwareChangeDiscardsTheUpdatableCopyOnce) {
    device.set("firmware T-1300.1");
    boot_and_stop();
    EXPECT_FALSE(device.logged("Successfully get so"));
    EXPECT_FALSE(exists(device.agent_copy()));
    EXPECT_FALSE(exists(device.opt("/usr/lib/libad-player-fwk.so")));
    EXPECT_EQ(read_file(device.opt("/media/Documents/adagentversion.txt")), "T-1300.1");
    EXPECT_FALSE(device.logged("failed to load"));
    boot_and_stop();
    EXPECT_TRUE(device.logged("Firmware version is same"));
}

}  // namespace device_tests
