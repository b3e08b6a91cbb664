#include "recorder.h"

namespace daemon_tests {
namespace {

class NetworkWatch : public ControllerTest {
protected:
    /** Makes a connection of a type, which "{type}" then names. */
    static void connect(int type, int state) {
        device.connection_type = type;
        device.connection_state = state;
        device.let("type", std::to_string(type));
    }
};

TEST_F(NetworkWatch, TheNetworkIsUpInOneStateOfItsType) {
    device.let("asked", "connection_get_type connection | N connection type:");
    device.let("up", R"(N ----bRet is:1----\n)").let("down", R"(N ----bRet is:0----\n)");
    device.let("none", R"(N ----connection disconnected!----\n | {down})");
    const std::pair<std::string, int> rows[] = {
        {"connection_get_wifi_state connection", 2},
        {"connection_get_cellular_state connection", 5},
        {R"(N --------CONNECTION_TYPE_ETHERNET---------- | connection_get_ethernet_state connection
            N ------------------)",
         2},
        {"connection_get_bt_state connection", 2},
    };
    for (int type = 1; type <= 4; ++type) {
        const auto& [steps, connected] = rows[type - 1];
        for (int state = 0; state <= (type == 2 ? 6 : 3); ++state) {
            connect(type, state);
            EXPECT_RUN(daemon_.m_IsValidNetwork(), state == connected,
                       "{asked} {type} |" + steps + (state == connected ? "| {up}" : "| {down}"));
        }
        connect(type, connected);
        for (const char* kind : {"wifi", "cellular", "ethernet", "bt"}) {
            device.answers["connection_get_" + std::string(kind) + "_state"] = {-1};
        }
        EXPECT_RUN(daemon_.m_IsValidNetwork(), false, "{asked} {type} |" + steps + "| {down}");
    }
    for (const int type : {0, 5}) {
        connect(type, 2);
        EXPECT_RUN(daemon_.m_IsValidNetwork(), false, "{asked} {type} | {none}");
    }
    connect(1, 2);
    device.answers["connection_get_type"] = {-3};
    EXPECT_RUN(daemon_.m_IsValidNetwork(), false,
               "connection_get_type connection | E Get connection type error | {none}");
}

TEST_F(NetworkWatch, TheFirstProfileOfTheTypeIsChosenOrElseTheLast) {
    struct Row {
        int type;
        std::string line;
        std::vector<int> profiles;
        int taken;
        std::string shown;
    };
    for (const Row& row :
         {Row{1, "N connection type: WIFI", {0, 1, 1}, 2, "a11"},
          Row{2, R"(N connection type: CELLULAR\s)", {0, 1}, 1, "a10"},
          Row{3, "N connection type: ETHERNET", {1, 3, 2}, 3, "a12"},
          Row{4, "N connection type: BT", {2, 3}, 2, "a11"},
          Row{0, R"(E connection type: 0,not wifi,ethernet,bt,celluar\s)", {3, 2, 2}, 2, "a11"},
          Row{5, R"(E connection type: 5,not wifi,ethernet,bt,celluar\s)", {2}, 1, "a10"},
          // None of the type: the last; none at all: none.
          Row{1, "N connection type: WIFI", {0, 2, 3}, 3, "a12"},
          Row{1, "N connection type: WIFI", {}, 0, "0"}}) {
        std::string walk;
        for (int i = 0; i < row.taken; ++i) walk += "taken " + std::to_string(i) + "|";
        connect(row.type, 2);
        device.profiles = row.profiles;
        EXPECT_RUN(reinterpret_cast<uintptr_t>(daemon_.m_GetConnectionProfile()),
                   row.taken == 0 ? 0U : 0x5500000a10U + row.taken - 1,
                   R"(N GetConnectionProfile enter!\s | connection_get_type connection
            E connection type: {type} | )" +
                       row.line + R"(
            connection_get_profile_iterator connection 0 |)" +
                       walk + "connection_destroy iterator | N profile = " + row.shown);
    }
}

TEST_F(NetworkWatch, AFailureEndsTheChoice) {
    const auto found = [this] { return daemon_.m_GetConnectionProfile() != nullptr; };
    device.let("begin", "connection_get_profile_iterator connection 0");
    device.let("end", "connection_destroy iterator | N profile =");
    device.profiles = {0, 1};
    device.answers["connection_get_profile_iterator"] = {-22};
    EXPECT_RUN(found(), false, "... | {begin} | E Fail to get profile iterator [-22]");
    // The profile of the steps before stays the answer.
    device.answers["connection_profile_iterator_next"] = {0, -1};
    EXPECT_RUN(found(), true, R"(... | {begin} | taken 0 | connection_profile_iterator_next iterator
        E Fail to get profile handle | {end} a10)");
    device.answers["connection_profile_get_type"] = {-1};
    EXPECT_RUN(found(), true, "... | {begin} | taken 0 | E Fail to get profile type | {end} a10");
    // A type that cannot be asked for counts as none: Ethernet is looked for.
    device.answers["connection_get_type"] = {-1};
    device.profiles = {1, 2, 1};
    EXPECT_RUN(found(), true, R"(... | E Get connection type error
        E connection type: 0,not wifi,ethernet,bt,celluar\s | {begin} | taken 0 | taken 1 | {end} a11)");
}

TEST_F(NetworkWatch, AProfileIsChosenOnceUntilItIsForgotten) {
    device.answers["connection_profile_set_state_changed_cb"] = {-5};
    EXPECT_RUN(daemon_.RegisterNetWorkStateChangeCB(), -5,
               "connection_profile_set_state_changed_cb profile 0");
    EXPECT_EQ(device.profile_watch, std::pair(&CADAgentd::m_NetworkStateChangeCB, (void*)&daemon_));
    daemon_.UnRegisterNetWorkStateChangeCB();
    daemon_.UnRegisterNetWorkStateChangeCB();
    EXPECT_STEPS(R"(
        N UnRegisterNetWorkStateChangeCB in | connection_profile_unset_state_changed_cb profile 0
        N UnRegisterNetWorkStateChangeCB in | connection_profile_unset_state_changed_cb null)");
    device.profiles = {};
    daemon_.RegisterNetWorkStateChangeCB();
    EXPECT_STEPS("... | N profile = 0 | E GetConnectionProfile failed");
}

TEST_F(NetworkWatch, AConnectedProfileOrANewTypeStartsTheWorkAgain) {
    const auto change_type = [this](int type) {
        CADAgentd::m_NetWorkTypeChangeCB(connection_type_e(type), &daemon_);
    };
    device.let("start", R"(N [CADAgentd] Start | N Already done. Do not launch "Start" function)");
    daemon_.m_bStartDone = true;
    CADAgentd::m_NetworkStateChangeCB(CONNECTION_PROFILE_STATE_CONNECTED, nullptr);
    for (const int state : {0, 1, 2, 3}) {
        CADAgentd::m_NetworkStateChangeCB(connection_profile_state_e(state), &daemon_);
    }
    EXPECT_STEPS(R"(E pUserData is NULL | N Current Network State is 0
        N Current Network State is 1 | N Current Network State is 2
        N Network is reconnected, Try Start | usleep 9000 | {start})");

    CADAgentd::m_NetWorkTypeChangeCB(CONNECTION_TYPE_WIFI, nullptr);
    for (const int type : {0, 5, 2}) change_type(type);
    EXPECT_STEPS(R"(E pUserData is NULL | E Unknown Type, 0 | E Unknown Type, 5
        N Check Profile is registered or not)");
    for (const int type : {1, 2, 3, 4}) {
        daemon_.m_hProfile = nullptr;
        change_type(type);
        EXPECT_STEPS(R"(N Check Profile is registered or not | N GetConnectionProfile enter!\s | ...
            connection_profile_set_state_changed_cb profile 0 | {start})");
    }
    // The work is tried also when no profile is found.
    daemon_.m_hProfile = nullptr;
    device.profiles = {};
    change_type(1);
    EXPECT_STEPS("... | E GetConnectionProfile failed | {start}");
}

}  // namespace
}  // namespace daemon_tests
