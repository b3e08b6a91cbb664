#include "recorder.h"

#include <cstdio>

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
    device.let("@", "m_IsValidNetwork");
    device.let("down", R"(N ----bRet is:0----\n)");
    device.let("none", R"(N ----connection disconnected!----\n | {down})");
    const auto up = [this](int type, int state) {
        connect(type, state);
        return daemon_.m_IsValidNetwork();
    };
    const std::pair<std::string, int> rows[] = {
        {"connection_get_wifi_state", 2},
        {"connection_get_cellular_state", 5},
        {"connection_get_ethernet_state", 2},
        {"connection_get_bt_state", 2},
    };
    for (int type = 1; type <= 4; ++type) {
        const auto& [query, connected] = rows[type - 1];
        const std::string steps = "connection_get_type connection | N connection type: {type} |" +
                                  (type == 3 ? "N --------CONNECTION_TYPE_ETHERNET---------- |" +
                                                   query + " connection | N ------------------"
                                             : query + " connection");
        for (int state = 0; state <= (type == 2 ? 6 : 3); ++state) {
            EXPECT_RUN(up(type, state), state == connected,
                       steps + (state == connected ? R"(| N ----bRet is:1----\n)" : "| {down}"));
        }
        device.answers[query] = {-1};
        EXPECT_RUN(up(type, connected), false, steps + "| {down}");
    }
    EXPECT_RUN(up(5, 2), false, "connection_get_type connection | N connection type: 5 | {none}");
    device.answers["connection_get_type"] = {-3};
    EXPECT_RUN(up(1, 2), false,
               "connection_get_type connection | E Get connection type error | {none}");
}

TEST_F(NetworkWatch, TheFirstProfileOfTheTypeIsChosenOrElseTheLast) {
    using Row = std::tuple<int, std::string, std::vector<int>, int, std::string>;
    device.let("@", "m_GetConnectionProfile");
    for (const auto& [type, line, profiles, taken, shown] :
         {Row{1, "N connection type: WIFI", {0, 1, 1}, 2, "a11"},
          Row{2, R"(N connection type: CELLULAR\s)", {0, 1}, 1, "a10"},
          Row{3, "N connection type: ETHERNET", {1, 3, 2}, 3, "a12"},
          Row{4, "N connection type: BT", {2, 3}, 2, "a11"},
          Row{5, R"(E connection type: 5,not wifi,ethernet,bt,celluar\s)", {3, 2, 2}, 2, "a11"},
          // None of the type: the last; none at all: none.
          Row{1, "N connection type: WIFI", {0, 2, 3}, 3, "a12"},
          Row{1, "N connection type: WIFI", {}, 0, "0"}}) {
        std::string walk;
        for (int i = 0; i < taken; ++i) walk += "taken " + std::to_string(i) + "|";
        connect(type, 2);
        device.profiles = profiles;
        EXPECT_RUN(reinterpret_cast<uintptr_t>(daemon_.m_GetConnectionProfile()),
                   taken == 0 ? 0U : 0x5500000a10U + taken - 1,
                   R"(N GetConnectionProfile enter!\s | connection_get_type connection
            E connection type: {type} | )" +
                       line + "| connection_get_profile_iterator connection 0 |" + walk +
                       "connection_destroy iterator | N profile = " + shown);
    }
}

TEST_F(NetworkWatch, AFailureEndsTheChoice) {
    const auto found = [this] { return daemon_.m_GetConnectionProfile() != nullptr; };
    device.let("@", "m_GetConnectionProfile").profiles = {0, 1};
    device.let("begin", "connection_get_profile_iterator connection 0");
    device.let("end", "connection_destroy iterator | N profile =");
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

TEST_F(NetworkWatch, AConnectedProfileOrANewTypeStartsTheWorkAgain) {
    device.answers["connection_profile_set_state_changed_cb"] = {-5};
    EXPECT_RUN(daemon_.RegisterNetWorkStateChangeCB(), -5,
               "connection_profile_set_state_changed_cb profile 0");
    device.let("start", R"(@Start | N [CADAgentd] Start
        N Already done. Do not launch "Start" function)");
    daemon_.m_bStartDone = true;
    const auto change_state = [](int state, void* user) {
        CADAgentd::m_NetworkStateChangeCB(connection_profile_state_e(state), user);
    };
    const auto change_type = [](int type, void* user) {
        CADAgentd::m_NetWorkTypeChangeCB(connection_type_e(type), user);
    };
    device.let("@", "m_NetworkStateChangeCB");
    EXPECT_STEPS(change_state(3, nullptr), "E pUserData is NULL");
    EXPECT_STEPS(change_state(0, &daemon_), "N Current Network State is 0");
    EXPECT_STEPS(change_state(2, &daemon_), "N Current Network State is 2");
    EXPECT_STEPS(change_state(3, &daemon_),
                 "N Network is reconnected, Try Start | usleep 9000 | {start}");

    device.let("@", "m_NetWorkTypeChangeCB");
    device.let("check", "N Check Profile is registered or not");
    EXPECT_STEPS(change_type(1, nullptr), "E pUserData is NULL");
    EXPECT_STEPS(change_type(0, &daemon_), "E Unknown Type, 0");
    EXPECT_STEPS(change_type(5, &daemon_), "E Unknown Type, 5");
    EXPECT_STEPS(change_type(2, &daemon_), "{check}");
    device.let("forgotten", R"(@UnRegisterNetWorkStateChangeCB
        N UnRegisterNetWorkStateChangeCB in | connection_profile_unset_state_changed_cb)");
    for (int type = 1; type <= 4; ++type) {
        EXPECT_STEPS(daemon_.UnRegisterNetWorkStateChangeCB(), "{forgotten} profile 0");
        EXPECT_STEPS(change_type(type, &daemon_), R"({check} | @m_GetConnectionProfile
            N GetConnectionProfile enter!\s | ...
            connection_profile_set_state_changed_cb profile 0 | {start})");
    }
    // The work is tried also when no profile is found.
    device.profiles = {};
    daemon_.UnRegisterNetWorkStateChangeCB();
    EXPECT_STEPS(daemon_.UnRegisterNetWorkStateChangeCB(), "... | {forgotten} null");
    EXPECT_STEPS(change_type(1, &daemon_),
                 "... | @RegisterNetWorkStateChangeCB | E GetConnectionProfile failed | {start}");
}

class Settings : public ControllerTest {
protected:
    /** Calls back without the setting and without the controller, whose pointers are named. */
    void change_nothing(vconf_callback_fn watch, const std::string& entry, const char* pointer) {
        char text[200];
        snprintf(text, sizeof(text), ",%s = (nil),pUserData = %p!", pointer, (void*)&daemon_);
        EXPECT_STEPS(watch(nullptr, &daemon_), entry + text);
        snprintf(text, sizeof(text), ",%s = %p,pUserData = (nil)!", pointer, (void*)&node_);
        EXPECT_STEPS(watch(&node_, nullptr), entry + text);
    }

    keynode_t node_ = {"some/key", 41, 1};
};

TEST_F(Settings, LanguageAndCountryHaveTheConfigurationFetchedAgain) {
    node_.type = 40;
    for (const auto& [watch, name, pointer] :
         {std::tuple(&CADAgentd::m_VConfLanguageChangeCB, "m_VConfLanguageChangeCB", "pNode"),
          std::tuple(&CADAgentd::m_CountryCodeChangeCB, "m_CountryCodeChangeCB", "response")}) {
        device.let("@", name).let("changed", std::string("N [CADAgentd] ") + name + R"(
            N [CADAgentd] Vconf key some/key changed, reset config server)");
        const auto change = [&, callback = watch] { return callback(&node_, &daemon_), 0; };
        EXPECT_RUN(change(), 0, "{changed} | config_requested");
        device.loader_errors = {"ad_agent_config_server"};
        EXPECT_RUN(change(), 0, "{changed} | config_unresolved");
        device.loader_errors.clear();
        EXPECT_RUN(without_library(change), 0, "{changed} | E [CADAgentd] pADLibHandler is NULL.");
        change_nothing(watch, "N [CADAgentd] {@} | E [CADAgentd] {@} has NULL parameter", pointer);
    }
}

TEST_F(Settings, ConsentHasTheConfigurationFetchedOnceItIsGiven) {
    const auto change = [this] { return CADAgentd::m_VConfTermChangeCB(&node_, &daemon_), 0; };
    device.let("@", "m_VConfTermChangeCB")
        .let("entry", "N [CADAgentd] CADAgentd::m_VConfTermChangeCB was called");
    device.let("changed", R"({entry} | N [CADAgentd] Vconf key some/key changed, retry to get )"
                          "the PSID and AD service config URL");
    device.let("given", "{changed} | N key = some/key, value = 1(int)");
    device.let("fetch", "N [CADAgentd]  START TO GET AD Config Server URL");
    EXPECT_RUN(change(), 0, "{given} | {fetch} | config_requested");
    device.loader_errors = {"ad_agent_config_server"};
    EXPECT_RUN(change(), 0, "{given} | {fetch} | config_unresolved");
    EXPECT_RUN(without_library(change), 0, "{given}");
    for (const int value : {0, 2}) {
        node_.value = value;
        EXPECT_RUN(change(), 0,
                   "{changed} | N key = some/key, value = " + std::to_string(value) + "(int)");
    }
    node_ = {"some/key", 40, 1};
    EXPECT_RUN(change(), 0, R"({changed} | E Unknown Type(40)\n)");
    change_nothing(CADAgentd::m_VConfTermChangeCB,
                   "{entry} | E [CADAgentd] m_VConfTermChangeCB has NULL parameter", "response");
}

TEST_F(Settings, TheRequestWaitsForTheStoreAndBetweenItsParts) {
    const auto request = [this] { return daemon_.m_RequestData(); };
    device.remove("{ready}").on_sleep = [sleeps = 0]() mutable {
        if (++sleeps == 2) device.put("{ready}");
    };
    device.let("@", "m_RequestData").let("begin", "N [CADAgentd] m_RequestData");
    device.let("wait", "missing {ready} | N [CADAgentd] Vconf is not ready, sleep! | usleep 10000");
    device.let("ready_now", "exists {ready} | N [CADAgentd] Vconf is ready!");
    EXPECT_RUN(request(), 1, R"({begin} | missing {opt_agent} | exists {firmware_agent}
        {wait} | {wait} | {ready_now} | config_resolved | ad_agent_config_server /TileAd/v2
        usleep 4000000 | ad_agent_config_server /AppsAd/v2)");

    device.put("{opt_agent}").loader_errors = {"ad_agent_config_server"};
    device.let("end", "usleep 4000000 | E [CADAgentd] fnAgentConfigServer is NULL.");
    EXPECT_RUN(request(), 1, R"({begin} | exists {opt_agent} | {ready_now}
        config_unresolved | {end})");
    EXPECT_RUN(without_library(request), 1,
               "... | {ready_now} | E [CADAgentd] m_pADLibHandler is NULL. | {end}");
    device.remove("{opt_agent}").remove("{firmware_agent}").remove("{ready}");
    EXPECT_RUN(request(), 1, "{begin} | missing {opt_agent} | missing {firmware_agent}");
}

}  // namespace
}  // namespace daemon_tests
