// What arrives after the daemon has found its gate closed.
#include "device.h"

namespace device_tests {

class LateEvents : public EachPlatform {};
ON_EACH_PLATFORM(LateEvents);

TEST_P(LateEvents, NetworkThenConsentThenNetworkAgainOpenTheGate) {
    device.publish("1.05");
    ASSERT_TRUE(device.boot("Please check network"));
    device.set("network up");
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [0]."));
    ASSERT_TRUE(device.await(STARTED));
    EXPECT_EQ(device.requests("/TileAd/v2"), 0);

    device.set("consent 1");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
    EXPECT_FALSE(device.logged("m_CheckZelPath"));

    device.set("network down");
    ASSERT_TRUE(device.await("Current Network State is 0"));
    device.set("network up");
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [1]."));
    ASSERT_TRUE(device.await("[CADAgentd] m_ReplaceLibSo end"));
    device.expect_installed("1.05");

    device.set("network down");
    ASSERT_TRUE(poll([&] { return device.logged("Current Network State is 0") == 2; }));
    device.set("network up");
    ASSERT_TRUE(device.await("Already done. Do not launch \"Start\" function"));
}

TEST_P(LateEvents, ALanguageChangeFetchesTheConfigurationWhateverTheConsent) {
    device.set("network up");
    ASSERT_TRUE(device.boot("[CADAgentd] T&C is = [0]."));
    device.set("language de_DE");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
    device.set("language fr_FR");
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 2));
}

TEST_P(LateEvents, TheMarkerOfTheSettingsStoreHoldsTheConfigurationRequest) {
    device.open_gate();
    ASSERT_TRUE(device.boot("[CADAgentd] Vconf is not ready, sleep!", "--unready"));
    EXPECT_EQ(device.requests("/TileAd/v2"), 0);
    device.command("exec touch /tmp/vconf_ready");
    ASSERT_TRUE(device.await(STARTED));
    EXPECT_EQ(device.requests("/TileAd/v2"), 1);
}

TEST(Gate, AnUnreadableConsentKeepsTheGateClosed) {
    const Device device;
    device.open_gate();
    device.set("result vconf_get_int -1");
    ASSERT_TRUE(device.boot("[CADAgentd] T&C did not agree !!!"));
    EXPECT_FALSE(device.logged("m_CheckZelPath"));
}

// --- What simulated services cannot do ---------------------------------------

TEST(LinuxServices, AConnectionThatIsTakenDownAndUpOpensTheGateAgain) {
    const Device device("linux");
    device.set("network up");
    ASSERT_TRUE(device.boot("[CADAgentd] T&C is = [0]."));
    device.command("exec nmcli connection down wired");
    ASSERT_TRUE(device.await("Current Network State is 0"));
    device.set("language de_DE");
    ASSERT_TRUE(device.await("ad-agent: configuration document /AppsAd/v2: "));
    EXPECT_EQ(device.requests("/AppsAd/v2"), 0);
    device.command("exec dconf write /db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree 1");
    device.command("exec nmcli connection up wired");
    ASSERT_TRUE(device.await("[CADAgentd] T&C is = [1]."));
    ASSERT_TRUE(device.await_requests("/AppsAd/v2", 1));
}

TEST(LinuxServices, AWholeUpdateGoesThroughAfterEveryServiceWasReplaced) {
    const Device device("linux");
    device.publish("1.05");
    ASSERT_TRUE(device.boot("Please check network"));
    device.command("services kill");
    device.command("services start");
    device.set("consent 1");
    ASSERT_TRUE(device.await("defaultdisclaimeragree, value = 1(int)"));
    device.set("network up");
    ASSERT_TRUE(device.await(STARTED));
    device.expect_installed("1.05");
}

}  // namespace device_tests
