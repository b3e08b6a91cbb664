// Which copy of the library a boot ends up on.
#include "device.h"

namespace device_tests {

class LibraryChoice : public testing::Test {
protected:
    explicit LibraryChoice(const std::string& platform = "simulated") : device(platform) {}

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

    const Device device;
    const std::string firmware_file = device.opt("/media/Documents/adagentversion.txt");
};

TEST_F(LibraryChoice, AnUpdatableCopyThatDoesNotLoadIsDiscarded) {
    write_file(device.agent_copy(), "not a library");
    boot_and_stop();
    EXPECT_TRUE(device.logged("Can't dlopen /opt/usr/lib/libad-agent-fwk.so"));
    EXPECT_TRUE(device.logged("Successfully get /usr/lib agent so"));
    EXPECT_FALSE(exists(device.agent_copy()));
    EXPECT_TRUE(exists(device.opt("/usr/lib")));
    EXPECT_TRUE(device.logged("Save Firm File done : T-1200.1"));
    EXPECT_TRUE(device.logged("version 1.05 failed to load: its image will not be taken again"));
}

class FirmwareChange : public LibraryChoice, public testing::WithParamInterface<const char*> {
protected:
    FirmwareChange() : LibraryChoice(GetParam()) {}
};
ON_EACH_PLATFORM(FirmwareChange);

TEST_P(FirmwareChange, DiscardsTheUpdatableCopyOnce) {
    device.set("firmware T-1300.1");
    boot_and_stop();
    EXPECT_FALSE(device.logged("Successfully get so"));
    EXPECT_FALSE(exists(device.agent_copy()));
    EXPECT_FALSE(exists(device.opt("/usr/lib/libad-player-fwk.so")));
    EXPECT_EQ(read_file(firmware_file), "T-1300.1");
    EXPECT_FALSE(device.logged("failed to load"));
    boot_and_stop();
    EXPECT_TRUE(device.logged("Firmware version is same"));
}

TEST_F(LibraryChoice, AnUnreadableFirmwareVersionDiscardsToo) {
    device.set("result system_info_get_value_string -5");
    boot_and_stop();
    EXPECT_TRUE(device.logged("Failed getting Firmware version. status= -5"));
    EXPECT_FALSE(exists(device.agent_copy()));
    EXPECT_EQ(read_file(firmware_file), "");
}

TEST_F(LibraryChoice, TheGreaterVersionWins) {
    const auto expect_choice = [this](const std::string& firmware, const std::string& cache,
                                      bool updatable) {
        write_file(device.usr_bin("/zels/zelADAgent/zelADAgent.xml"),
                   "<Zel><Version>" + firmware + "</Version></Zel>");
        write_file(device.opt("/usr/apps/adagent/zelADAgentCache.xml"), cache);
        ASSERT_TRUE(exists(device.agent_copy()));
        boot_and_stop();
        EXPECT_EQ(device.logged("Successfully get so"), updatable) << firmware;
        EXPECT_EQ(exists(device.agent_copy()), updatable) << firmware;
        EXPECT_EQ(exists(device.opt("/down/zels/zelADAgent_img/zelADAgent.img")), updatable);
        EXPECT_TRUE(exists(device.opt("/usr/lib")));
    };
    expect_choice("2.10", "<Cache><SoVersion>2.9</SoVersion></Cache>", true);
    expect_choice("1.06", "<Cache><SoVersion>1.05</SoVersion></Cache>", false);
    device.install("1.07");
    device.set("network down");
    expect_choice("1.0", "", false);
}

}  // namespace device_tests
