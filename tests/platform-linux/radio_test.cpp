/**
 * Wi-Fi, cellular and Bluetooth. They cannot be activated without hardware, so
 * a stand-in for NetworkManager says what the real one would.
 */
#include "platform_test.h"

#include <memory>

namespace platform_linux_test {

namespace {

const std::string NAME = "org.freedesktop.NetworkManager";
const std::string ROOT = "/org/freedesktop/NetworkManager";

struct Radio {
    const char* name;
    /** NetworkManager's device type and connection type. */
    int device_type;
    const char* connection_type;
    /** The platform's connection type, profile type and "connected". */
    int type;
    int profile_type;
    int connected;
};

}  // namespace

class RadioTest : public PlatformTest, public testing::WithParamInterface<Radio> {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        if (IsSkipped()) return;
        service("stop network");
        mock_ = std::make_unique<LineProcess>(std::vector<std::string>{
            "/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "networkmanager"});
        // It has its name some time before it has its objects.
        must("for i in $(seq 500); do gdbus introspect --system -d " + NAME + " -o " + ROOT +
             "/Settings | grep -q AddConnection && exit; sleep 0.02; done; exit 1");
        call("", "DBus.Mock.AddProperty", NAME + " PrimaryConnection \"<objectpath '/'>\"");
    }

    /** Calls a method of one of the stand-in's objects, with arguments as gdbus(1) takes them. */
    static void call(const std::string& object, const std::string& method,
                     const std::string& arguments) {
        must("gdbus call --system -d " + NAME + " -o " + ROOT + object + " -m org.freedesktop." +
             method + " " + arguments);
    }

    static void set(const std::string& object, const std::string& interface,
                    const std::string& property, int value) {
        call(
            object, "DBus.Mock.UpdateProperties",
            NAME + interface + " \"{'" + property + "': <uint32 " + std::to_string(value) + ">}\"");
    }
    static void set_device_state(int state) { set("/Devices/radio", ".Device", "State", state); }
    static void set_active_state(int state) {
        set("/ActiveConnection/0", ".Connection.Active", "State", state);
    }
    static void set_primary(const std::string& path) {
        call("", "DBus.Properties.Set",
             NAME + " PrimaryConnection \"<objectpath '" + path + "'>\"");
    }

    std::unique_ptr<LineProcess> mock_;
};

TEST_P(RadioTest, FromNoConnectionToOneAndBack) {
    const Radio& radio = GetParam();
    const std::string state = std::string("state ") + radio.name;
    Probe probe;
    ASSERT_EQ(probe.ask("watch-type"), "0");
    EXPECT_EQ(probe.ask(state), "0 0") << "no such device";

    call("", "DBus.Mock.AddWiFiDevice", "radio radio0 30");
    set("/Devices/radio", ".Device", "DeviceType", radio.device_type);
    call("/Settings", "NetworkManager.Settings.AddConnection",
         std::string("\"{'connection': {'id': <'mine'>, 'uuid': <'a-uuid'>, 'type': <'") +
             radio.connection_type + "'>}}\"");
    EXPECT_TRUE(probe.comes_to(state, "0 1"));
    EXPECT_TRUE(probe.comes_to("profiles", "0 0:" + std::to_string(radio.profile_type)));
    ASSERT_EQ(probe.ask("watch-profile 0"), "0");

    // Activating, in the order that NetworkManager goes through.
    call("", "DBus.Mock.AddActiveConnection",
         "\"['" + ROOT + "/Devices/radio']\" " + ROOT + "/Settings/0 / \"'0'\" 1");
    set_device_state(50);
    EXPECT_TRUE(probe.sees("profile-changed 0 1"));
    set_device_state(70);
    EXPECT_TRUE(probe.sees("profile-changed 0 2"));
    set_primary(ROOT + "/ActiveConnection/0");
    EXPECT_EQ(probe.ask("type"), "0 0") << "named the primary one before it is ready";
    EXPECT_TRUE(probe.sees_no("type-changed", 60ms));
    set_device_state(100);
    set_active_state(2);
    EXPECT_TRUE(probe.sees("type-changed " + std::to_string(radio.type)));
    EXPECT_TRUE(probe.sees("profile-changed 0 3"));
    EXPECT_EQ(probe.ask("type"), "0 " + std::to_string(radio.type));
    EXPECT_EQ(probe.ask(state), "0 " + std::to_string(radio.connected));
    EXPECT_EQ(probe.ask("state ethernet"), "0 0");

    set_active_state(3);
    set_device_state(30);
    set_primary("/");
    EXPECT_TRUE(probe.sees("type-changed 0"));
    EXPECT_TRUE(probe.sees("profile-changed 0 0"));
    EXPECT_TRUE(probe.comes_to(state, "0 1"));
}

INSTANTIATE_TEST_SUITE_P(Radios, RadioTest,
                         testing::Values(Radio{"wifi", 2, "802-11-wireless", 1, 1, 2},
                                         Radio{"cellular", 8, "gsm", 2, 0, 5},
                                         Radio{"bt", 5, "bluetooth", 4, 3, 2}),
                         [](const auto& radio) { return std::string(radio.param.name); });

}  // namespace platform_linux_test
