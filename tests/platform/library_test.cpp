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

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

using namespace simulated_platform_tests;
using testing::ElementsAre;
using testing::EndsWith;

namespace {

class LibraryTest : public testing::Test {
protected:
    void SetUp() override {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/opt", "tmpfs", 0, nullptr) != 0)
            GTEST_SKIP() << "no private /opt here: " << strerror(errno);
        std::filesystem::create_directory("/opt/platform");
        edit("");
    }

    /** Has the library take the device's state with something added. */
    static void edit(const std::string& added) {
        write_in_place("/opt/platform/state.ini",
                       "[settings]\nconsent=int:6\n[network]\ntype=ethernet\nwifi=1\ncellular=4\n"
                       "ethernet=2\nbluetooth=3\nprofiles=wired\n[profile wired]\ntype=ethernet\n"
                       "[system]\nfirmware=T-1200.1\n" +
                           added);
        run_pending();
    }
};

/** A call that gives the function's value, or else the status it fails with. */
template <typename Handle, typename Value>
std::function<int()> ask(int (*function)(Handle, Value*), const Handle& handle) {
    return [function, &handle] {
        Value value{};
        const int status = function(handle, &value);
        return status != 0 ? status : static_cast<int>(value);
    };
}

void copy_node(keynode_t* node, void* text) {
    *static_cast<std::string*>(text) = std::string(vconf_keynode_get_name(node)) + " " +
                                       std::to_string(vconf_keynode_get_type(node)) + " " +
                                       std::to_string(vconf_keynode_get_int(node));
}

}  // namespace

TEST_F(LibraryTest, EachCallAnswersAndCanBeMadeToFail) {
    connection_h connection = nullptr;
    ASSERT_EQ(connection_create(&connection), 0);
    connection_h other = nullptr;
    connection_profile_iterator_h walk = nullptr;
    connection_profile_h profile = nullptr;
    const char* const consent = "consent";
    struct Case {
        const char* name;
        std::function<int()> call;
        int answer;
    };
    // Having a next one has no status to give: that it is made to fail shows as an end.
    const auto step = [&] {
        const bool has_next = connection_profile_iterator_has_next(walk);
        const int status = connection_profile_iterator_next(walk, &profile);
        EXPECT_EQ(has_next, status == 0);
        return status;
    };
    const auto firmware = [] {
        char* text = nullptr;
        const int status = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &text);
        EXPECT_STREQ(text, status == 0 ? "T-1200.1" : nullptr);
        free(text);
        return status;
    };
    const auto ignore = [](auto, auto) {};
#define CALL(function, ...) #function, [&] { return function(__VA_ARGS__); }
#define ASK(function, handle) #function, ask(function, handle)
    // In an order in which each finds what it needs.
    const std::vector<Case> cases{
        {CALL(connection_create, &other), 0},
        {CALL(connection_destroy, other), 0},
        {ASK(connection_get_type, connection), 3},
        {ASK(connection_get_wifi_state, connection), 1},
        {ASK(connection_get_cellular_state, connection), 4},
        {ASK(connection_get_ethernet_state, connection), 2},
        {ASK(connection_get_bt_state, connection), 3},
        {CALL(connection_set_type_changed_cb, connection, ignore, nullptr), 0},
        {CALL(connection_get_profile_iterator, connection, CONNECTION_ITERATOR_TYPE_REGISTERED,
              &walk),
         0},
        {"connection_profile_iterator_next", step, 0},
        {ASK(connection_profile_get_type, profile), 2},
        {CALL(connection_profile_set_state_changed_cb, profile, ignore, nullptr), 0},
        {CALL(connection_profile_unset_state_changed_cb, profile), 0},
        {"system_info_get_value_string", firmware, 0},
        {CALL(vconf_notify_key_changed, "key", ignore, nullptr), 0},
        {ASK(vconf_get_int, consent), 6},
        {CALL(__dlog_print, PLATFORM_LOG_MAIN, 7, "TAG", "%s", "kept"), 36},
    };
    const auto expect_answers = [&cases] {
        for (const Case& one : cases) EXPECT_EQ(one.call(), one.answer) << one.name;
    };
    expect_answers();
    // A walk that has not ended, for the end to be a forced one.
    connection_get_profile_iterator(connection, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk);
    std::string results = "[results]\nconnection_profile_iterator_has_next=1\n";
    int forced = -70;
    for (const Case& one : cases)
        results.append(one.name).append("=").append(std::to_string(--forced)).append("\n");
    edit(results);
    forced = -70;
    for (const Case& one : cases) EXPECT_EQ(one.call(), --forced) << one.name;

    edit("");
    expect_answers();
    EXPECT_THAT(lines_of("/opt/platform/platform.log"),
                ElementsAre(EndsWith(" 7 TAG kept"), EndsWith(" 7 TAG kept")));
    char* text = nullptr;
    EXPECT_NE(system_info_get_value_string(1, &text), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(connection_destroy(connection), 0);

    // A callback is handed the key's node.
    std::string seen;
    int value = 9;
    EXPECT_NE(vconf_get_int("tune/new", &value), 0);
    ASSERT_EQ(vconf_notify_key_changed("tune/new", copy_node, &seen), 0);
    edit("[settings]\ntune/new=string:-4\n");
    EXPECT_EQ(seen, "tune/new 42 0");
    EXPECT_NE(vconf_get_int("tune/new", &value), 0);
    EXPECT_EQ(value, 9);
    edit("[settings]\ntune/new=int:-4\n");
    EXPECT_EQ(seen, "tune/new 41 -4");
    edit("");
    EXPECT_EQ(seen, "tune/new 0 0");
}
