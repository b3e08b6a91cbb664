#include "recorder.h"

#include <cstdio>

namespace daemon_tests {
namespace {

class Settings : public ControllerTest {
protected:
    /** Changes the setting for a callback. */
    void change(void (*watch)(keynode_t*, void*)) { watch(&node_, &daemon_); }

    /** Calls back without the setting and without the controller, and names the pointers. */
    void change_nothing(void (*watch)(keynode_t*, void*)) {
        char text[64];
        snprintf(text, sizeof(text), " = (nil),pUserData = %p!", static_cast<void*>(&daemon_));
        device.let("no_node", text);
        snprintf(text, sizeof(text), " = %p,pUserData = (nil)!", static_cast<void*>(&node_));
        device.let("no_daemon", text);
        watch(nullptr, &daemon_);
        watch(&node_, nullptr);
    }

    keynode_t node_ = {"some/key", 41, 1};
};

TEST_F(Settings, LanguageAndCountryHaveTheConfigurationFetchedAgain) {
    node_.type = 40;
    for (const auto& [watch, name, pointer] :
         {std::tuple(&CADAgentd::m_VConfLanguageChangeCB, "m_VConfLanguageChangeCB", "pNode"),
          std::tuple(&CADAgentd::m_CountryCodeChangeCB, "m_CountryCodeChangeCB", "response")}) {
        device.let("me", name).let("pointer", pointer);
        device.let("changed", R"(N [CADAgentd] {me}
            N [CADAgentd] Vconf key some/key changed, reset config server)");
        device.let("null", "N [CADAgentd] {me} | E [CADAgentd] {me} has NULL parameter,{pointer}");
        change(watch);
        EXPECT_STEPS("{changed} | config_requested");
        device.loader_errors = {"ad_agent_config_server"};
        change(watch);
        EXPECT_STEPS("{changed} | config_unresolved");
        device.loader_errors.clear();
        without_library([&, callback = watch] { return change(callback), 0; });
        EXPECT_STEPS("{changed} | E [CADAgentd] pADLibHandler is NULL.");
        change_nothing(watch);
        EXPECT_STEPS("{null}{no_node} | {null}{no_daemon}");
    }
}

TEST_F(Settings, ConsentHasTheConfigurationFetchedOnceItIsGiven) {
    const auto watch = CADAgentd::m_VConfTermChangeCB;
    device.let("entry", "N [CADAgentd] CADAgentd::m_VConfTermChangeCB was called");
    device.let("null", "{entry} | E [CADAgentd] m_VConfTermChangeCB has NULL parameter,response");
    device.let("changed",
               "{entry} | N [CADAgentd] Vconf key some/key changed, "
               "retry to get the PSID and AD service config URL");
    device.let("given", "{changed} | N key = some/key, value = 1(int)");
    device.let("fetch", "N [CADAgentd]  START TO GET AD Config Server URL");
    change(watch);
    EXPECT_STEPS("{given} | {fetch} | config_requested");
    device.loader_errors = {"ad_agent_config_server"};
    change(watch);
    EXPECT_STEPS("{given} | {fetch} | config_unresolved");
    without_library([&] { return change(watch), 0; });
    EXPECT_STEPS("{given}");
    for (const int value : {0, 2, -1}) {
        node_.value = value;
        change(watch);
        EXPECT_STEPS("{changed} | N key = some/key, value = " + std::to_string(value) + "(int)");
    }
    node_ = {"some/key", 40, 1};
    change(watch);
    EXPECT_STEPS(R"({changed} | E Unknown Type(40)\n)");
    change_nothing(watch);
    EXPECT_STEPS("{null}{no_node} | {null}{no_daemon}");
}

TEST_F(Settings, TheRequestWaitsForTheStoreAndBetweenItsParts) {
    const auto request = [this] { return daemon_.m_RequestData(); };
    device.remove("{ready}").on_sleep = [sleeps = 0]() mutable {
        if (++sleeps == 2) device.put("{ready}");
    };
    EXPECT_RUN(request(), 1, R"(N [CADAgentd] m_RequestData
        missing {opt_agent} | exists {firmware_agent}
        missing {ready} | N [CADAgentd] Vconf is not ready, sleep! | usleep 10000
        missing {ready} | N [CADAgentd] Vconf is not ready, sleep! | usleep 10000
        exists {ready} | N [CADAgentd] Vconf is ready!
        config_resolved | ad_agent_config_server /TileAd/v2
        usleep 4000000 | ad_agent_config_server /AppsAd/v2)");

    device.put("{opt_agent}").loader_errors = {"ad_agent_config_server"};
    device.let("begin", R"(N [CADAgentd] m_RequestData | exists {opt_agent}
        exists {ready} | N [CADAgentd] Vconf is ready!)");
    device.let("end", "usleep 4000000 | E [CADAgentd] fnAgentConfigServer is NULL.");
    EXPECT_RUN(request(), 1, "{begin} | config_unresolved | {end}");
    EXPECT_RUN(without_library(request), 1,
               "{begin} | E [CADAgentd] m_pADLibHandler is NULL. | {end}");
    device.remove("{opt_agent}").remove("{firmware_agent}").remove("{ready}");
    EXPECT_RUN(request(), 1,
               "N [CADAgentd] m_RequestData | missing {opt_agent} | missing {firmware_agent}");
}

}  // namespace
}  // namespace daemon_tests
