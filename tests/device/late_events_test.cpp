// What arrives after the daemon has found its gate closed.
#include "device.h"

#include <gtest/gtest.h>

namespace device_tests {
namespace {

class LateEvents : public EachPlatform {};
ON_EACH_PLATFORM(LateEvents);

TEST_P(LateEvents, NetworkThenConsentThenNetworkAgainOpenTheGate) {
    device.publish("1.05");
    device.start();
    ASSERT_TRUE(device.await("Please check network"));

    device.set("network", "up");
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [0]."));
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 0);

    device.set("consent", "1");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
    EXPECT_FALSE(device.logged("m_CheckZelPath"));

    device.set("network", "down");
    ASSERT_TRUE(device.await("Current Network State is 0"));
    device.set("network", "up");
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [1]."));
    ASSERT_TRUE(device.await("[CADAgentd] m_ReplaceLibSo end"));
    EXPECT_EQ(device.recorded_version(), "1.05");

    device.set("network", "down");
    ASSERT_TRUE(poll([&] { return device.count("Current Network State is 0") == 2; }));
    device.set("network", "up");
    ASSERT_TRUE(device.await("Already done. Do not launch \"Start\" function"));
    EXPECT_EQ(device.stop(), 0);
}

TEST_P(LateEvents, ALanguageChangeFetchesTheConfigurationWhateverTheConsent) {
    device.set("network", "up");
    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [0]."));
    device.set("language", "de_DE");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
    device.set("language", "fr_FR");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 2));
    EXPECT_EQ(device.stop(), 0);
}

TEST_P(LateEvents, TheMarkerOfTheSettingsStoreHoldsTheConfigurationRequest) {
    device.open_gate();
    device.start({"--unready"});
    ASSERT_TRUE(device.await("[CADAgentd] Vconf is not ready, sleep!"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 0);
    device.command({"exec", "touch", "/tmp/vconf_ready"});
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
    EXPECT_EQ(device.stop(), 0);
}

TEST(Gate, AnUnreadableConsentKeepsTheGateClosed) {
    const Device device;
    device.open_gate();
    device.command({"set", "result", "vconf_get_int", "-1"});
    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] T&C did not agree !!!"));
    EXPECT_FALSE(device.logged("m_CheckZelPath"));
    EXPECT_EQ(device.stop(), 0);
}

}  // namespace
}  // namespace device_tests
