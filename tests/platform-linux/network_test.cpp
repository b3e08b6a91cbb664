/** The network-connection service on a real NetworkManager with a wired port. */
#include "platform_test.h"

#include <thread>

namespace platform_linux_test {

class Network : public PlatformTest {
protected:
    /** Watches the connection's type and the only profile. */
    static void watch(Probe& probe) {
        ASSERT_EQ(probe.ask("profiles"), "0 0:2");
        ASSERT_EQ(probe.ask("watch-profile 0"), "0");
        ASSERT_EQ(probe.ask("watch-type"), "0");
    }

    /** Both are reported, and what is reported holds when it is asked for. */
    static void expect_connected(Probe& probe) {
        EXPECT_TRUE(probe.sees("type-changed 3"));
        EXPECT_TRUE(probe.sees("profile-changed 0 3"));
        EXPECT_EQ(probe.ask("type"), "0 3");
        EXPECT_EQ(probe.ask("state ethernet"), "0 2");
    }

    static void expect_disconnected(Probe& probe, const std::string& type = "0 0") {
        EXPECT_TRUE(probe.sees("type-changed 0"));
        EXPECT_TRUE(probe.sees("profile-changed 0 0"));
        EXPECT_EQ(probe.ask("type"), type);
    }

    /** Waits until NetworkManager is in this state, and the platform has had time to see it. */
    static void await_network(const std::string& state) {
        must("for i in $(seq 400); do [ \"$(nmcli -t -f STATE general)\" = " + state +
             " ] && exit; sleep 0.02; done; exit 1");
        std::this_thread::sleep_for(200ms);
    }
};

TEST_F(Network, AWiredPortFromPluggingInToPullingOut) {
    set_cable("down");
    add_wired();
    Probe probe;
    EXPECT_EQ(probe.ask("type"), "0 0");
    EXPECT_EQ(probe.ask("state ethernet"), "0 0") << "a port without a cable";
    watch(probe);
    for (int i = 0; i < 10; ++i) {
        set_cable("up");
        expect_connected(probe);
        EXPECT_TRUE(probe.sees_no("-changed", i == 0 ? 150ms : 0ms)) << "one change, two reports";
        set_cable("down");
        expect_disconnected(probe);
        ASSERT_FALSE(HasFailure());
    }
    ASSERT_EQ(probe.ask("unwatch-profile 0"), "0");
    set_cable("up");
    EXPECT_TRUE(probe.sees("type-changed 3"));
    EXPECT_TRUE(probe.sees_no("profile-changed", 100ms));
}

TEST_F(Network, AProfileIsConnectedOnlyOnceSomethingLeadsOut) {
    Probe probe;
    ASSERT_EQ(probe.ask("watch-type"), "0");
    add_wired("ipv4.never-default yes");
    must("nmcli connection up wired");
    ASSERT_TRUE(probe.comes_to("profiles", "0 0:2"));
    watch(probe);
    EXPECT_EQ(probe.ask("type"), "0 0") << "without a gateway no connection is the primary one";
    EXPECT_TRUE(probe.sees_no("type-changed", 100ms));
    must("nmcli connection modify wired ipv4.never-default no ipv4.gateway 10.9.0.1");
    must("nmcli device reapply eth0");
    expect_connected(probe);
}

TEST_F(Network, ActivatingAgainIsNoLossOfTheConnection) {
    connect_wired();
    Probe probe;
    ASSERT_EQ(probe.ask("type"), "0 3");
    ASSERT_EQ(probe.ask("watch-type"), "0");
    for (int i = 0; i < 5; ++i) {
        must("nmcli connection up wired");
        EXPECT_TRUE(probe.sees_no("type-changed", 60ms));
    }
}

TEST_F(Network, ALossDuringABusyMainLoopIsReportedAfterIt) {
    connect_wired();
    Probe probe;
    watch(probe);
    probe.send("block /run/go-on");
    set_cable("down");
    await_network("disconnected");
    set_cable("up");
    await_network("connected");
    must("touch /run/go-on");
    // Connected before and after, but whoever waits for "connected" is told again.
    expect_connected(probe);
}

TEST_F(Network, ProfilesKeepTheirOrderAndHandles) {
    // No hardware is needed to have profiles for it.
    for (const std::string profile :
         {"bridge con-name a-bridge ifname test0", "gsm con-name phone ifname '*' apn net",
          "wifi con-name home ssid home", "ethernet con-name b-wired",
          "bluetooth con-name tether bluetooth.type panu bluetooth.bdaddr 00:11:22:33:44:55",
          "ethernet con-name c-wired connection.autoconnect-priority 5"}) {
        must("nmcli -t connection add autoconnect no type " + profile);
    }
    Probe probe;
    // By priority and name: c-wired, b-wired, home, phone, tether, a-bridge; and no loopback.
    const std::string order = "0 0:2 1:2 2:1 3:0 4:3 5:2";
    ASSERT_EQ(probe.ask("profiles"), order);

    service("kill network");
    EXPECT_TRUE(probe.comes_to("profiles", "-107"));
    service("start network");
    // The service numbers its connections anew; the handles are the same ones.
    EXPECT_TRUE(probe.comes_to("profiles", order));

    must("nmcli connection modify b-wired connection.autoconnect-priority 9");
    must("nmcli connection delete phone");
    EXPECT_TRUE(probe.comes_to("profiles", "0 1:2 0:2 2:1 4:3 5:2"));
}

TEST_F(Network, ARemovedProfileIsDisconnectedAndMayComeBack) {
    connect_wired();
    Probe probe;
    watch(probe);
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

TEST_F(Network, WrongHandlesAndPointersAreRefused) { EXPECT_EQ(Probe().ask("misuse"), "nothing"); }

// --- Without the services ----------------------------------------------------

TEST_F(Network, WhatChangedWhileTheServicesWereAwayIsKnownAfterwards) {
    connect_wired();
    Probe probe;
    watch(probe);
    service("kill system-bus network");
    expect_disconnected(probe, "-107 -77");
    EXPECT_EQ(probe.ask("state ethernet"), "-107 -77");
    EXPECT_EQ(probe.ask("profiles"), "-107");
    must("rm /etc/NetworkManager/system-connections/*; ip address flush dev eth0");
    service("start system-bus network");
    EXPECT_TRUE(probe.comes_to("profiles", "0"));
    EXPECT_EQ(probe.ask("type"), "0 0");
    add_wired();
    EXPECT_TRUE(probe.sees("type-changed 3"));
}

TEST_F(Network, AHangingServiceIsWaitedForOnceAndNotForLong) {
    connect_wired();
    for (const std::string hanging : {"network", "system-bus"}) {
        SCOPED_TRACE(hanging);
        service("pause " + hanging);
        Probe probe;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(probe.ask("type"), "-110 -77");
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 1500ms);
        const auto next = std::chrono::steady_clock::now();
        EXPECT_EQ(probe.ask("type"), "-110 -77");
        EXPECT_EQ(probe.ask("profiles"), "-110");
        ASSERT_EQ(probe.ask("watch-type"), "0");
        EXPECT_LT(std::chrono::steady_clock::now() - next, 500ms);
        service("resume " + hanging);
        EXPECT_TRUE(probe.sees("type-changed 3"));
        EXPECT_EQ(probe.ask("type"), "0 3");
    }
}

TEST_F(Network, AServiceThatHangsLaterHoldsNothingUp) {
    connect_wired();
    Probe probe;
    watch(probe);
    service("pause network");
    const auto begin = std::chrono::steady_clock::now();
    set_cable("down");
    EXPECT_EQ(probe.ask("type"), "0 3") << "what it last said";
    EXPECT_EQ(probe.ask("profiles"), "0 0:2");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
    // It never goes on: it is replaced.
    service("kill network");
    EXPECT_TRUE(probe.sees("type-changed 0"));
    service("start network");
    set_cable("up");
    EXPECT_TRUE(probe.sees("type-changed 3"));
}

}  // namespace platform_linux_test
