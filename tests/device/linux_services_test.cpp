// A device on the Linux platform, where its services do what simulated ones cannot.
#include "device.h"

#include <gtest/gtest.h>

namespace device_tests {
namespace {

class LinuxServices : public testing::Test {
protected:
    const Device device{"linux"};
};

TEST_F(LinuxServices, AConnectionThatIsTakenDownAndUpOpensTheGateAgain) {
    device.set("network", "up");
    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [0]."));
    device.command({"exec", "nmcli", "connection", "down", "wired"});
    ASSERT_TRUE(device.await("Current Network State is 0"));
    device.set("language", "de_DE");
    ASSERT_TRUE(device.await("ad-agent: configuration document /AppsAd/v2: "));
    EXPECT_EQ(device.requests("/AppsAd/v2"), 0);
    device.command({"exec", "dconf", "write",
                    "/db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree", "1"});
    device.command({"exec", "nmcli", "connection", "up", "wired"});
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [1]."));
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
    EXPECT_EQ(device.stop(), 0);
}

TEST_F(LinuxServices, AWholeUpdateGoesThroughAfterEveryServiceWasReplaced) {
    device.publish("1.05");
    device.start();
    ASSERT_TRUE(device.await("Please check network"));
    device.command({"services", "kill"});
    device.command({"services", "start"});
    device.set("consent", "1");
    ASSERT_TRUE(device.await("defaultdisclaimeragree, value = 1(int)"));
    device.set("network", "up");
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_TRUE(device.updatable_copy_is_published());
    EXPECT_EQ(device.stop(), 0);
    EXPECT_EQ(device.leftovers(), "");
}

}  // namespace
}  // namespace device_tests
