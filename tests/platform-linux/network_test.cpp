/** The network-connection service on a real NetworkManager with a wired port. */
#include "platform_test.h"

namespace platform_linux_test {

class Network : public PlatformTest {};

TEST_F(Network, AWiredPortFromPluggingInToPullingOut) {
    must("ip link set far0 down");
    add_wired("wired");
    Probe probe;
    EXPECT_EQ(probe.ask("type"), "0 0");
    EXPECT_EQ(probe.ask("state ethernet"), "0 0") << "a port without a cable";
    ASSERT_EQ(probe.ask("profiles"), "0 0:2");
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    ASSERT_EQ(probe.ask("watch-type"), "0");

    must("ip link set far0 up");
    EXPECT_TRUE(probe.sees("type-changed 3"));
    EXPECT_TRUE(probe.sees("profile-changed 0 3"));
    EXPECT_EQ(probe.ask("type"), "0 3");
    EXPECT_EQ(probe.ask("state ethernet"), "0 2");
    EXPECT_EQ(probe.ask("state wifi"), "0 0");
    EXPECT_EQ(probe.ask("state cellular"), "0 0");
    EXPECT_EQ(probe.ask("state bt"), "0 0");
    EXPECT_TRUE(probe.sees_no("", 150ms)) << "more than one report of one change";

    must("ip link set far0 down");
    EXPECT_TRUE(probe.sees("type-changed 0"));
    EXPECT_TRUE(probe.sees("profile-changed 0 0"));
    EXPECT_EQ(probe.ask("type"), "0 0");

    ASSERT_EQ(probe.ask("unwatch-profile 0"), "0");
    must("ip link set far0 up");
    EXPECT_TRUE(probe.sees("type-changed 3"));
    EXPECT_TRUE(probe.sees_no("profile-changed", 100ms));
}

TEST_F(Network, WhatIsReportedHoldsWhenItIsAskedFor) {
    must("ip link set far0 down");
    add_wired("wired");
    Probe probe;
    probe.ask("profiles");
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    for (int i = 0; i < 10; ++i) {
        must("ip link set far0 up");
        ASSERT_TRUE(probe.sees("profile-changed 0 3"));
        ASSERT_EQ(probe.ask("type"), "0 3");
        ASSERT_EQ(probe.ask("state ethernet"), "0 2");
        must("ip link set far0 down");
        ASSERT_TRUE(probe.sees("profile-changed 0 0"));
        ASSERT_EQ(probe.ask("type"), "0 0");
    }
}

TEST_F(Network, AProfileIsConnectedOnlyOnceSomethingLeadsOut) {
    Probe probe;
    ASSERT_EQ(probe.ask("watch-type"), "0");
    add_wired("inside", "ipv4.never-default yes");
    must("nmcli connection up inside");
    ASSERT_TRUE(probe.comes_to("profiles", "0 0:2"));
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    EXPECT_EQ(probe.ask("type"), "0 0") << "without a gateway no connection is the primary one";
    EXPECT_TRUE(probe.sees_no("type-changed", 100ms));

    must("nmcli connection modify inside ipv4.never-default no ipv4.gateway 10.9.0.1");
    must("nmcli device reapply eth0");
    EXPECT_TRUE(probe.sees("type-changed 3"));
    EXPECT_TRUE(probe.sees("profile-changed 0 3"));
}

TEST_F(Network, ActivatingAgainIsNoLossOfTheConnection) {
    add_wired("wired");
    must("nmcli connection up wired");
    Probe probe;
    ASSERT_EQ(probe.ask("type"), "0 3");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    for (int i = 0; i < 5; ++i) {
        must("nmcli connection up wired");
        EXPECT_TRUE(probe.sees_no("type-changed", 60ms));
    }
}

TEST_F(Network, ALossDuringABusyMainLoopIsReportedAfterIt) {
    add_wired("wired");
    must("nmcli connection up wired");
    Probe probe;
    probe.ask("profiles");
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    probe.send("block /run/go-on");
    must("ip link set far0 down");
    await_network("disconnected");
    must("ip link set far0 up");
    await_network("connected");
    must("touch /run/go-on");
    // Connected before and after, but whoever waits for "connected" is told again.
    EXPECT_TRUE(probe.sees("type-changed 3"));
    EXPECT_TRUE(probe.sees("profile-changed 0 3"));
}

TEST_F(Network, ProfilesKeepTheirOrderAndHandles) {
    // No hardware is needed to have profiles for it.
    must("nmcli -t connection add type bridge con-name a-bridge ifname test0 autoconnect no");
    must("nmcli -t connection add type gsm con-name phone ifname '*' apn net autoconnect no");
    must("nmcli -t connection add type wifi con-name home ssid home autoconnect no");
    must(
        "nmcli -t connection add type bluetooth con-name tether bluetooth.type panu "
        "bluetooth.bdaddr 00:11:22:33:44:55 autoconnect no");
    must("nmcli -t connection add type ethernet con-name b-wired autoconnect no");
    must(
        "nmcli -t connection add type ethernet con-name c-wired autoconnect no "
        "connection.autoconnect-priority 5");
    Probe probe;
    // By priority and name: c-wired, b-wired, home, phone, tether, a-bridge; and no loopback.
    const std::string order = "0 0:2 1:2 2:1 3:0 4:3 5:2";
    ASSERT_EQ(probe.ask("profiles"), order);

    service("kill network");
    EXPECT_TRUE(probe.comes_to("profiles", "-107"));
    service("start network");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    // The service numbers its connections anew; the handles are the same ones.
    EXPECT_TRUE(probe.comes_to("profiles", order));

    must("nmcli connection modify b-wired connection.autoconnect-priority 9");
    must("nmcli connection delete phone");
    EXPECT_TRUE(probe.comes_to("profiles", "0 1:2 0:2 2:1 4:3 5:2"));
}

TEST_F(Network, ARemovedProfileIsDisconnectedAndMayComeBack) {
    add_wired("wired");
    must("nmcli connection up wired");
    Probe probe;
    ASSERT_EQ(probe.ask("profiles"), "0 0:2");
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    must("cp /etc/NetworkManager/system-connections/wired.nmconnection /run/kept.nmconnection");
    must("nmcli connection delete wired");
    EXPECT_TRUE(probe.sees("profile-changed 0 0"));
    EXPECT_TRUE(probe.comes_to("profiles", "0"));

    must("mv /run/kept.nmconnection /etc/NetworkManager/system-connections/wired.nmconnection");
    must("nmcli connection reload");
    EXPECT_TRUE(probe.sees("profile-changed 0 3"));
    EXPECT_EQ(probe.ask("profiles"), "0 0:2");
}

TEST_F(Network, ABridgeCountsAsAWire) {
    if (shell("ip link add name test0 type bridge").status != 0) {
        GTEST_SKIP() << "this kernel has no bridges";
    }
    must("ip link del test0");
    must(
        "nmcli -t connection add type bridge con-name bridge ifname test0 bridge.stp no "
        "ipv4.method manual ipv4.addresses 10.8.0.2/24 ipv4.gateway 10.8.0.1 ipv6.method disabled");
    // Over a port that NetworkManager has no connection on.
    must("for i in $(seq 100); do ip link set far0 master test0 && exit; sleep 0.02; done; exit 1");
    Probe probe;
    EXPECT_TRUE(probe.comes_to("type", "0 3"));
    EXPECT_EQ(probe.ask("state ethernet"), "0 2");
    EXPECT_EQ(probe.ask("profiles"), "0 0:2");
}

TEST_F(Network, WrongHandlesAndPointersAreRefused) {
    Probe probe;
    EXPECT_EQ(probe.ask("misuse"), "0") << "something was written to";
    EXPECT_EQ(probe.transcript().find("accepted"), std::string::npos) << probe.transcript();
}

// --- Without the services ----------------------------------------------------

class NetworkOutage : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        if (IsSkipped()) return;
        add_wired("wired");
        must("nmcli connection up wired");
    }
};

TEST_F(NetworkOutage, RestartsAreReportedAndTheNextChangeToo) {
    Probe probe;
    ASSERT_EQ(probe.ask("profiles"), "0 0:2");
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    for (const std::string restarted : {"network", "system-bus network"}) {
        service("kill " + restarted);
        EXPECT_TRUE(probe.sees("type-changed 0")) << restarted;
        EXPECT_TRUE(probe.sees("profile-changed 0 0")) << restarted;
        EXPECT_EQ(probe.ask("type"), "-107 -77") << restarted;
        EXPECT_EQ(probe.ask("state ethernet"), "-107 -77") << restarted;
        EXPECT_EQ(probe.ask("profiles"), "-107") << restarted;
        service("start " + restarted);
        EXPECT_TRUE(probe.sees("profile-changed 0 3")) << restarted;
        must("ip link set far0 down");
        EXPECT_TRUE(probe.sees("profile-changed 0 0")) << restarted;
        must("ip link set far0 up");
        EXPECT_TRUE(probe.sees("profile-changed 0 3")) << restarted;
    }
}

TEST_F(NetworkOutage, WhatChangedMeanwhileIsKnownAfterwards) {
    Probe probe;
    ASSERT_EQ(probe.ask("type"), "0 3");
    ASSERT_EQ(probe.ask("profiles"), "0 0:2");
    service("kill system-bus network");
    must("rm /etc/NetworkManager/system-connections/*; ip address flush dev eth0");
    service("start system-bus network");
    EXPECT_TRUE(probe.comes_to("profiles", "0"));
    EXPECT_EQ(probe.ask("type"), "0 0");
}

TEST_F(NetworkOutage, AHangingServiceIsWaitedForOnceAndNotForLong) {
    for (const std::string hanging : {"network", "system-bus"}) {
        service("pause " + hanging);
        Probe probe;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(probe.ask("type"), "-110 -77") << hanging;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 1500ms) << hanging;
        const auto next = std::chrono::steady_clock::now();
        EXPECT_EQ(probe.ask("type"), "-110 -77") << hanging;
        EXPECT_EQ(probe.ask("profiles"), "-110") << hanging;
        ASSERT_EQ(probe.ask("watch-type"), "0") << hanging;
        EXPECT_LT(std::chrono::steady_clock::now() - next, 500ms) << hanging;
        service("resume " + hanging);
        EXPECT_TRUE(probe.sees("type-changed 3")) << hanging;
        EXPECT_EQ(probe.ask("type"), "0 3") << hanging;
    }
}

TEST_F(NetworkOutage, AServiceThatHangsLaterHoldsNothingUp) {
    Probe probe;
    ASSERT_EQ(probe.ask("type"), "0 3");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    service("pause network");
    const auto begin = std::chrono::steady_clock::now();
    must("ip link set far0 down");
    EXPECT_EQ(probe.ask("type"), "0 3") << "what it last said";
    EXPECT_EQ(probe.ask("profiles"), "0 0:2");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
    // It never goes on: it is replaced.
    service("kill network");
    EXPECT_TRUE(probe.sees("type-changed 0"));
    service("start network");
    must("ip link set far0 up");
    EXPECT_TRUE(probe.sees("type-changed 3"));
}

}  // namespace platform_linux_test
