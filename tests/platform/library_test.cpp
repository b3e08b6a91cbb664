/**
 * The library through its C functions, on a device of its own: a private mount
 * namespace in which /opt is empty.
 */
#include "files.h"
#include "network_connection.h"
#include "platform_log.h"
#include "settings_store.h"
#include "system_information.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

using namespace simulated_platform_tests;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char state_path[] = "/opt/platform/state.ini";
constexpr char log_path[] = "/opt/platform/platform.log";

constexpr char device[] =
    "[settings]\nconsent=int:1\nlanguage=string:en_GB\n"
    "[network]\ntype=ethernet\nwifi=1\ncellular=4\nethernet=2\nbluetooth=3\n"
    "profiles=wired;home\n[profile wired]\ntype=ethernet\nstate=3\n"
    "[profile home]\ntype=wifi\nstate=0\n[system]\nfirmware=T-1200.1\n";

/** What keeps this process from a device of its own; empty when it has one. */
std::string enter_device() {
    if (unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("mount of / as private: ") + strerror(errno);
    if (mount("tmpfs", "/opt", "tmpfs", 0, nullptr) != 0)
        return std::string("mount of /opt: ") + strerror(errno);
    std::filesystem::create_directory("/opt/platform");
    return {};
}

int firmware_status() {
    char* text = nullptr;
    const int status = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &text);
    free(text);
    return status;
}

class LibraryTest : public testing::Test {
protected:
    void SetUp() override {
        static const std::string missing = enter_device();
        if (!missing.empty()) GTEST_SKIP() << "no private /opt here: " << missing;
        edit("");
        ASSERT_EQ(connection_create(&connection_), 0);
    }
    void TearDown() override {
        if (connection_) {
            EXPECT_EQ(connection_destroy(connection_), 0);
        }
    }

    /** Has the library take the device's state with something added. */
    static void edit(const std::string& added) {
        static int number = 0;
        const std::string firmware = "edit " + std::to_string(++number);
        std::string text = device + added;
        text.replace(text.find("T-1200.1"), 8, firmware);
        write_in_place(state_path, text);
        ASSERT_TRUE(wait_until([&] {
            char* read = nullptr;
            if (system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &read) != 0)
                return false;
            const std::unique_ptr<char, decltype(&free)> owner(read, free);
            return firmware == read;
        })) << text;
    }

    connection_h connection_ = nullptr;
};

void ignore_setting(keynode_t*, void*) {}
void ignore_type(connection_type_e, void*) {}
void ignore_profile(connection_profile_state_e, void*) {}

void copy_node(keynode_t* node, void* text) {
    *static_cast<std::string*>(text) = std::string(vconf_keynode_get_name(node)) + " " +
                                       std::to_string(vconf_keynode_get_type(node)) + " " +
                                       std::to_string(vconf_keynode_get_int(node));
}

}  // namespace

TEST_F(LibraryTest, AnswersFromTheStateFile) {
    connection_type_e type{};
    EXPECT_EQ(connection_get_type(connection_, &type), 0);
    EXPECT_EQ(type, CONNECTION_TYPE_ETHERNET);
    connection_wifi_state_e wifi{};
    EXPECT_EQ(connection_get_wifi_state(connection_, &wifi), 0);
    EXPECT_EQ(static_cast<int>(wifi), 1);
    connection_cellular_state_e cellular{};
    EXPECT_EQ(connection_get_cellular_state(connection_, &cellular), 0);
    EXPECT_EQ(static_cast<int>(cellular), 4);
    connection_ethernet_state_e ethernet{};
    EXPECT_EQ(connection_get_ethernet_state(connection_, &ethernet), 0);
    EXPECT_EQ(ethernet, CONNECTION_ETHERNET_STATE_CONNECTED);
    connection_bt_state_e bluetooth{};
    EXPECT_EQ(connection_get_bt_state(connection_, &bluetooth), 0);
    EXPECT_EQ(static_cast<int>(bluetooth), 3);

    int value = 9;
    EXPECT_NE(vconf_get_int("language", &value), 0);
    EXPECT_NE(vconf_get_int("missing", &value), 0);
    EXPECT_EQ(value, 9);
    EXPECT_EQ(vconf_get_int("consent", &value), 0);
    EXPECT_EQ(value, 1);
    char* text = nullptr;
    EXPECT_NE(system_info_get_value_string(1, &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST_F(LibraryTest, WalksTheRegisteredProfilesInOrder) {
    connection_profile_iterator_h walk = nullptr;
    ASSERT_EQ(
        connection_get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk),
        0);
    std::vector<int> types;
    connection_profile_h profile = nullptr;
    while (connection_profile_iterator_has_next(walk)) {
        ASSERT_EQ(connection_profile_iterator_next(walk, &profile), 0);
        connection_profile_type_e type{};
        EXPECT_EQ(connection_profile_get_type(profile, &type), 0);
        types.push_back(type);
    }
    EXPECT_THAT(types, ElementsAre(CONNECTION_PROFILE_TYPE_ETHERNET, CONNECTION_PROFILE_TYPE_WIFI));
    EXPECT_NE(connection_profile_iterator_next(walk, &profile), 0);
    EXPECT_EQ(connection_destroy(walk), 0);
    EXPECT_NE(connection_destroy(walk), 0);
    EXPECT_NE(connection_destroy(nullptr), 0);
}

TEST_F(LibraryTest, HandsAKeyNodeToTheCallback) {
    std::string seen;
    ASSERT_EQ(vconf_notify_key_changed("tune/new", copy_node, &seen), 0);
    edit("[settings]\ntune/new=int:-4\n");
    EXPECT_EQ(seen, "tune/new 41 -4");
    edit("[settings]\ntune/new=string:-4\n");
    EXPECT_EQ(seen.substr(0, 8), "tune/new");
    EXPECT_THAT(seen, Not(HasSubstr(" 41 ")));
    EXPECT_THAT(seen, EndsWith(" 0"));
    edit("");
    EXPECT_EQ(seen, "tune/new 0 0");
}

TEST_F(LibraryTest, EachCallCanBeMadeToFail) {
    connection_profile_iterator_h walk = nullptr;
    connection_profile_h profile = nullptr;
    ASSERT_EQ(
        connection_get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk),
        0);
    ASSERT_EQ(connection_profile_iterator_next(walk, &profile), 0);

    union {
        int number;
        connection_type_e type;
        connection_wifi_state_e wifi;
        connection_cellular_state_e cellular;
        connection_ethernet_state_e ethernet;
        connection_bt_state_e bluetooth;
        connection_profile_type_e profile_type;
    } out{};
    void* handle = nullptr;
    const auto made_and_released = [&] {
        const int status = connection_create(&handle);
        return status != 0 ? status : connection_destroy(handle);
    };
    const auto walked = [&] {
        const int status = connection_get_profile_iterator(
            connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &handle);
        if (status == 0) connection_destroy(handle);
        return status;
    };
    const auto stepped = [&] {
        connection_profile_iterator_h steps = nullptr;
        connection_get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &steps);
        const int status = connection_profile_iterator_next(steps, &handle);
        connection_destroy(steps);
        return status;
    };
    struct Case {
        const char* name;
        std::function<int()> call;
    };
    const std::vector<Case> cases{
        {"connection_create", made_and_released},
        {"connection_destroy", made_and_released},
        {"connection_get_type", [&] { return connection_get_type(connection_, &out.type); }},
        {"connection_get_wifi_state",
         [&] { return connection_get_wifi_state(connection_, &out.wifi); }},
        {"connection_get_cellular_state",
         [&] { return connection_get_cellular_state(connection_, &out.cellular); }},
        {"connection_get_ethernet_state",
         [&] { return connection_get_ethernet_state(connection_, &out.ethernet); }},
        {"connection_get_bt_state",
         [&] { return connection_get_bt_state(connection_, &out.bluetooth); }},
        {"connection_set_type_changed_cb",
         [&] { return connection_set_type_changed_cb(connection_, ignore_type, nullptr); }},
        {"connection_get_profile_iterator", walked},
        {"connection_profile_iterator_next", stepped},
        {"connection_profile_get_type",
         [&] { return connection_profile_get_type(profile, &out.profile_type); }},
        {"connection_profile_set_state_changed_cb",
         [&] { return connection_profile_set_state_changed_cb(profile, ignore_profile, nullptr); }},
        {"connection_profile_unset_state_changed_cb",
         [&] { return connection_profile_unset_state_changed_cb(profile); }},
        {"vconf_notify_key_changed",
         [] { return vconf_notify_key_changed("key", ignore_setting, nullptr); }},
        {"vconf_get_int", [&] { return vconf_get_int("consent", &out.number); }},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(one.call(), 0) << one.name;
        edit(std::string("[results]\n") + one.name + "=-77\n");
        EXPECT_EQ(one.call(), -77) << one.name;
        edit(std::string("[results]\n") + one.name + "=0\n");
        EXPECT_EQ(one.call(), 0) << one.name;
    }
}

TEST_F(LibraryTest, CallsWithoutAStatusFailInTheirOwnWay) {
    write_in_place(state_path, std::string(device) + "[results]\nsystem_info_get_value_string=5\n");
    EXPECT_TRUE(wait_until([] { return firmware_status() == 5; }));

    edit("[results]\nconnection_profile_iterator_has_next=1\n");
    connection_profile_iterator_h walk = nullptr;
    ASSERT_EQ(
        connection_get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk),
        0);
    EXPECT_FALSE(connection_profile_iterator_has_next(walk));

    edit("[results]\n__dlog_print=-9\n");
    EXPECT_EQ(__dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, "TAG", "lost"), -9);
    edit("");
    EXPECT_TRUE(connection_profile_iterator_has_next(walk));
    EXPECT_GT(__dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, "TAG", "kept"), 0);
    EXPECT_THAT(lines_of(log_path).back(), EndsWith(" NORMAL TAG kept"));
    for (const std::string& line : lines_of(log_path)) EXPECT_THAT(line, Not(HasSubstr("lost")));
}

TEST_F(LibraryTest, ABadFileIsReportedInThePlatformLogToo) {
    std::filesystem::remove(log_path);
    write_in_place(state_path, "[network]\ntype=wlan\n");
    EXPECT_TRUE(wait_until([] { return std::filesystem::exists(log_path); }));
    EXPECT_THAT(
        lines_of(log_path),
        ElementsAre(HasSubstr(" ERROR PLATFORM /opt/platform/state.ini: [network] type: ")));
    EXPECT_EQ(firmware_status(), 0);
}
