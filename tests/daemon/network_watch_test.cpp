#include "recorder.h"

namespace daemon_tests {
namespace {

class NetworkWatch : public ControllerTest {};

TEST_F(NetworkWatch, TheNetworkIsUpInOneStateOfItsType) {
    const char* const kinds[] = {"", "wifi", "cellular", "ethernet", "bt"};
    for (int type = 0; type <= 5; ++type) {
        const bool known = type >= 1 && type <= 4;
        const int connected = type == 2 ? 5 : 2;
        const std::string query =
            known ? "connection_get_" + std::string(kinds[type]) + "_state" : "";
        std::string steps =
            known ? query + " connection" : R"(N ----connection disconnected!----\n)";
        if (type == 3) {
            steps =
                "N --------CONNECTION_TYPE_ETHERNET---------- |" + steps + "| N ------------------";
        }
        steps = "connection_get_type connection | N connection type: " + std::to_string(type) +
                "|" + steps + "| N ----bRet is:";
        device.connection_type = type;
        for (device.connection_state = 0; device.connection_state <= 6; ++device.connection_state) {
            const bool up = known && device.connection_state == connected;
            EXPECT_RUN(daemon_.m_IsValidNetwork(), up, steps + (up ? R"(1----\n)" : R"(0----\n)"));
        }
        device.connection_state = connected;
        device.answers[query] = {-1};
        EXPECT_RUN(daemon_.m_IsValidNetwork(), false, steps + R"(0----\n)");
    }
    device.answers["connection_get_type"] = {-3};
    EXPECT_RUN(daemon_.m_IsValidNetwork(), false,
               R"(connection_get_type connection | E Get connection type error
        N ----connection disconnected!----\n | N ----bRet is:0----\n)");
}

TEST_F(NetworkWatch, TheFirstProfileOfTheTypeIsChosenOrElseTheLast) {
    struct Row {
        int type;
        std::vector<int> profiles;
        std::string failing;
        std::string steps;
    };
    device.let("wifi", "E connection type: 1 | N connection type: WIFI");
    device.let("begin", "connection_get_profile_iterator connection 0");
    device.let("end", "connection_destroy iterator | N profile =");
    const Row rows[] = {
        {1, {0, 1, 1}, "", "{wifi} | {begin} | taken 0 | taken 1 | {end} a11"},
        {2, {0, 1}, "", R"(... | N connection type: CELLULAR\s | {begin} | taken 0 | {end} a10)"},
        {3,
         {1, 2},
         "",
         "... | N connection type: ETHERNET | {begin} | taken 0 | taken 1 | {end} a11"},
        {4, {2, 3}, "", "... | N connection type: BT | {begin} | taken 0 | taken 1 | {end} a11"},
        {5, {3, 2, 2}, "", R"(... | E connection type: 5,not wifi,ethernet,bt,celluar\s
            {begin} | taken 0 | taken 1 | {end} a11)"},
        // None of the type: the last; none at all: none.
        {1, {0, 2}, "", "{wifi} | {begin} | taken 0 | taken 1 | {end} a11"},
        {1, {}, "", "{wifi} | {begin} | {end} 0"},
        // A failure ends the choice; the profile of the steps before stays the answer.
        {1,
         {0},
         "connection_get_profile_iterator",
         "{wifi} | {begin} | E Fail to get profile iterator [-1]"},
        {1,
         {0, 1},
         "connection_profile_get_type",
         "{wifi} | {begin} | taken 0 | E Fail to get profile type | {end} a10"},
        {1,
         {0, 1},
         "connection_profile_iterator_next",
         R"({wifi} | {begin} | connection_profile_iterator_next iterator
            E Fail to get profile handle | {end} 0)"},
        // A type that cannot be asked for counts as none: Ethernet is looked for.
        {1, {1, 2, 1}, "connection_get_type", R"(E Get connection type error
            E connection type: 0,not wifi,ethernet,bt,celluar\s | {begin}
            taken 0 | taken 1 | {end} a11)"},
    };
    for (const Row& row : rows) {
        device.connection_type = row.type;
        device.profiles = row.profiles;
        device.answers[row.failing] = {-1};
        const auto profile = reinterpret_cast<uintptr_t>(daemon_.m_GetConnectionProfile());
        // The log shows the lower half of the handle.
        const size_t shown = row.steps.find("{end} a1");
        const bool found = shown != std::string::npos;
        EXPECT_EQ(profile, found ? 0x5500000a10U + (row.steps[shown + 8] - '0') : 0U);
        EXPECT_STEPS(R"(N GetConnectionProfile enter!\s | connection_get_type connection |)" +
                     row.steps);
    }
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
}

TEST_F(NetworkWatch, AConnectedProfileOrANewTypeStartsTheWorkAgain) {
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
    for (const int type : {0, 5, 2}) {
        CADAgentd::m_NetWorkTypeChangeCB(connection_type_e(type), &daemon_);
    }
    EXPECT_STEPS(R"(E pUserData is NULL | E Unknown Type, 0 | E Unknown Type, 5
        N Check Profile is registered or not)");
    // The work is tried also when no profile is found.
    device.profiles = {};
    daemon_.m_hProfile = nullptr;
    for (const int type : {1, 2, 3, 4}) {
        CADAgentd::m_NetWorkTypeChangeCB(connection_type_e(type), &daemon_);
        EXPECT_STEPS(R"(N Check Profile is registered or not | N GetConnectionProfile enter!\s | ...
            E GetConnectionProfile failed | {start})");
    }
}

}  // namespace
}  // namespace daemon_tests
