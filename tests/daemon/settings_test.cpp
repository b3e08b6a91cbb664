#include "recorder.h"

#include <sstream>

namespace daemon_tests {
namespace {

class Settings : public ControllerTest {};

TEST_F(Settings, AChangeHasTheConfigurationFetchedAgain) {
    struct Watch {
        void (*callback)(keynode_t*, void*);
        std::string entry;
        std::string null;
        std::string changed;
        std::string without_library;
    };
    const std::string again = "N [CADAgentd] Vconf key some/key changed, reset config server";
    const std::string missing = "| E [CADAgentd] pADLibHandler is NULL.";
    keynode_t node = {"some/key", 41, 1};
    const auto text = [](const void* pointer) {
        std::ostringstream out;
        out << pointer;
        return out.str();
    };
    device.let("node", text(&node)).let("daemon", text(&daemon_));
    for (const Watch& watch :
         {Watch{CADAgentd::m_VConfLanguageChangeCB, "m_VConfLanguageChangeCB",
                "m_VConfLanguageChangeCB has NULL parameter,pNode", again, missing},
          Watch{CADAgentd::m_CountryCodeChangeCB, "m_CountryCodeChangeCB",
                "m_CountryCodeChangeCB has NULL parameter,response", again, missing},
          Watch{CADAgentd::m_VConfTermChangeCB, "CADAgentd::m_VConfTermChangeCB was called",
                "m_VConfTermChangeCB has NULL parameter,response",
                R"(N [CADAgentd] Vconf key some/key changed, retry to get the PSID and )"
                R"(AD service config URL | N key = some/key, value = 1(int))",
                ""}}) {
        device.let("entry", "N [CADAgentd] " + watch.entry).let("changed", watch.changed);
        device.let("null", "{entry} | E [CADAgentd] " + watch.null);
        device.let("fetch", watch.without_library.empty()
                                ? "| N [CADAgentd]  START TO GET AD Config Server URL"
                                : "");
        const auto change = [&] { return watch.callback(&node, &daemon_), true; };
        EXPECT_RUN(change(), true, "{entry} | {changed} {fetch} | config_requested");
        device.loader_errors = {"ad_agent_config_server"};
        EXPECT_RUN(change(), true, "{entry} | {changed} {fetch} | config_unresolved");
        device.loader_errors.clear();
        EXPECT_RUN(without_library(change), true, "{entry} | {changed}" + watch.without_library);
        watch.callback(nullptr, &daemon_);
        watch.callback(&node, nullptr);
        EXPECT_STEPS(R"({null} = (nil),pUserData = {daemon}!
            {null} = {node},pUserData = (nil)!)");
    }
    for (const int value : {0, 2, -1}) {
        node.value = value;
        CADAgentd::m_VConfTermChangeCB(&node, &daemon_);
        EXPECT_STEPS("... | N key = some/key, value = " + std::to_string(value) + "(int)");
    }
    node = {"some/key", 40, 1};
    CADAgentd::m_VConfTermChangeCB(&node, &daemon_);
    EXPECT_STEPS(R"(... | E Unknown Type(40)\n)");
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
