#include "ADLibs.h"
#include "recorder.h"

namespace daemon_tests {
namespace {

class Library : public DaemonTest {};

TEST_F(Library, StartGoesByTheLoadersErrorAndKeepsTheHandle) {
    CADLibs libs;
    EXPECT_STEPS("N Construct");
    device.not_found = {"/lib/b.so", "/lib/c.so"};
    device.loader_errors = {"/lib/b.so", "/lib/d.so"};
    EXPECT_RUN(libs.Start("/lib/a.so"), true, "opened /lib/a.so");
    EXPECT_RUN(libs.Start("/lib/d.so"), false, "not_opened /lib/d.so");
    EXPECT_RUN(libs.Start(""), false, R"(N [CADLibs] Start, lib so name is\s
        E ERROR: Input lib so name is empty | N [CADLibs] Start end)");
    EXPECT_NE(libs.m_sDlHandle, nullptr);
    EXPECT_RUN(libs.Start("/lib/b.so"), false, "not_opened /lib/b.so");
    EXPECT_RUN(libs.Start("/lib/c.so"), true, "opened /lib/c.so");
    EXPECT_EQ(libs.m_sDlHandle, nullptr);
}

TEST_F(Library, ResolvesEachEntryPointByItsName) {
    struct Row {
        void* (CADLibs::*getter)();
        std::string log_name;
        std::string symbol;
    };
    const Row rows[] = {
        {&CADLibs::GetAdAgentInit, "GetAdAgentInit", "ad_agent_init"},
        {&CADLibs::GetAdAgentClear, "GetAdAgentClear", "ad_agent_clear"},
        {&CADLibs::GetAdAgentRegister, "GetAdAgentRegister", "ad_agent_register"},
        {&CADLibs::GetAdAgentUnRegister, "GetAdAgentUnRegister", "ad_agent_unregister"},
        {&CADLibs::GetAdAgentRequest, "GetAdAgentUnRegister", "ad_agent_request"},
        {&CADLibs::GetAdAgentRequestSync, "GetAdAgentRequestSync", "ad_agent_request_sync"},
        {&CADLibs::GetAdAgentReport, "GetAdAgentReport", "ad_agent_report"},
        {&CADLibs::GetAdAgentLaunch, "GetAdAgentLaunch", "ad_agent_launch"},
        {&CADLibs::GetAdAgentUpdate, "GetAdAgentUpdate", "ad_agent_update"},
        {&CADLibs::GetAdAgentSetSoVersion, "GetAdAgentSetSoVersion", "ad_agent_set_soversion"},
        {&CADLibs::GetAdAgentGetSoVersion, "GetAdAgentGetSoVersion", "ad_agent_get_soversion"},
        {&CADLibs::GetAdAgentPsidGet, "GetAdAgentPsidGet", "ad_agent_psid_get"},
        {&CADLibs::GetAdAgentConfigServer, "GetAdAgentConfigServer", "ad_agent_config_server"},
    };
    CADLibs closed;
    CADLibs libs;
    libs.Start("/lib/a.so");
    transcript();
    for (const Row& row : rows) {
        const std::string names = row.log_name + " " + row.symbol;
        EXPECT_NE((libs.*row.getter)(), nullptr);
        EXPECT_STEPS("resolved " + names);
        EXPECT_RUN((closed.*row.getter)(), nullptr, "unopened " + row.log_name);
        // An address that comes with an error is not to be trusted.
        device.loader_errors = {row.symbol};
        EXPECT_RUN((libs.*row.getter)(), nullptr, "unresolved " + names);
    }
    EXPECT_RUN(libs.m_GetHanlder(""), nullptr, R"(N [CADLibs] m_GetHanlder
        E [CADLibs] m_GetHanlder, input sHanderName is empty)");
    libs.Destory();
    EXPECT_STEPS("N [CADLibs] Destory | N [CADLibs] begine to dlclose. | dlclose");
    libs.Destory();
    EXPECT_STEPS("N [CADLibs] Destory");
}

}  // namespace
}  // namespace daemon_tests
