#include "recorder.h"

#include <cstdio>

namespace daemon_tests {
namespace {

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
