// Which copy of the library a boot ends up on.
#include "device.h"

#include <gtest/gtest.h>

namespace device_tests {
namespace {

class LibraryChoice : public testing::Test {
protected:
    explicit LibraryChoice(const std::string& platform = "simulated") : device(platform) {}

    /** A device that has version 1.05 installed and boots with the gate closed from now on. */
    void SetUp() override {
        device.publish("1.05");
        device.run_update();
        ASSERT_TRUE(device.updatable_copy_is_published());
        device.set("network", "down");
    }

    void boot_and_stop() const {
        device.start();
        ASSERT_TRUE(device.await("Please check network"));
        EXPECT_EQ(device.stop(), 0);
    }

    bool on_updatable() const { return device.logged("Successfully get so"); }
    bool updatable_is_there() const { return exists(device.opt("/usr/lib/libad-agent-fwk.so")); }

    const Device device;
};

TEST_F(LibraryChoice, AnUpdatableCopyThatDoesNotLoadIsDiscarded) {
    write_file(device.opt("/usr/lib/libad-agent-fwk.so"), "not a library");
    write_file(device.opt("/media/Documents/adagentversion.txt"), "T-1200.1");
    boot_and_stop();
    EXPECT_TRUE(device.logged("Can't dlopen /opt/usr/lib/libad-agent-fwk.so"));
    EXPECT_TRUE(device.logged("Successfully get /usr/lib agent so"));
    EXPECT_FALSE(updatable_is_there());
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
    device.set("firmware", "T-1300.1");
    boot_and_stop();
    EXPECT_FALSE(on_updatable());
    EXPECT_FALSE(updatable_is_there());
    EXPECT_FALSE(exists(device.opt("/usr/lib/libad-player-fwk.so")));
    EXPECT_EQ(read_file(device.opt("/media/Documents/adagentversion.txt")), "T-1300.1");
    EXPECT_FALSE(device.logged("failed to load"));
    boot_and_stop();
    EXPECT_TRUE(device.logged("Firmware version is same"));
}

TEST_F(LibraryChoice, AnUnreadableFirmwareVersionDiscardsToo) {
    device.command({"set", "result", "system_info_get_value_string", "-5"});
    boot_and_stop();
    EXPECT_TRUE(device.logged("Failed getting Firmware version. status= -5"));
    EXPECT_FALSE(updatable_is_there());
    EXPECT_EQ(read_file(device.opt("/media/Documents/adagentversion.txt")), "");
}

struct ManifestCase {
    const char* firmware;
    const char* cache;
    bool updatable;
};

class ByManifest : public LibraryChoice, public testing::WithParamInterface<ManifestCase> {};

TEST_P(ByManifest, TheGreaterVersionWins) {
    write_file(device.usr_bin("/zels/zelADAgent/zelADAgent.xml"),
               std::string("<Zel><Version>") + GetParam().firmware + "</Version></Zel>");
    write_file(device.opt("/usr/apps/adagent/zelADAgentCache.xml"), GetParam().cache);
    boot_and_stop();
    EXPECT_EQ(on_updatable(), GetParam().updatable);
    EXPECT_EQ(updatable_is_there(), GetParam().updatable);
    EXPECT_EQ(exists(device.opt("/down/zels/zelADAgent_img/zelADAgent.img")), GetParam().updatable);
    EXPECT_TRUE(exists(device.opt("/usr/lib")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ByManifest,
    testing::Values(ManifestCase{"1.06", "<Cache><SoVersion>1.05</SoVersion></Cache>", false},
                    ManifestCase{"2.10", "<Cache><SoVersion>2.9</SoVersion></Cache>", true},
                    ManifestCase{"1.0", "", false}));

}  // namespace
}  // namespace device_tests
