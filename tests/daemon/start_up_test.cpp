#include "recorder.h"

namespace daemon_tests {
namespace {

class StartUp : public DaemonTest {
protected:
    StartUp() {
        device.put("{version_file}", "T-1200.3");
        device.let("begin", R"(N Construct | N t_Initialize In
            vconf_notify_key_changed {consent} | vconf_notify_key_changed {language}
            N m_CheckFirmVersion | ...)");
        device.let("written", R"(N m_WriteFirmVersion | open {version_file} w
            system_info_get_value_string 1104 | N Save Firm File done : T-1200.3)");
        device.let("initialised", R"(resolved GetAdAgentInit ad_agent_init | ad_agent_init called
            connection_create called | ...)");
        device.let("firmware_loaded", R"(missing {opt_agent}
            N t_Initialize so file is {firmware_agent} | N Construct | missing {opt_agent}
            N Successfully get /usr/lib agent so | opened {firmware_agent} | {initialised})");
    }

    /** Makes a new controller and leaves what it wrote. */
    CADAgentd& construct() {
        daemon_.reset();
        transcript();
        return daemon_.emplace();
    }

    std::optional<CADAgentd> daemon_;
};

TEST_F(StartUp, WatchesWithTheControllerItself) {
    void* const daemon = &construct();
    EXPECT_STEPS("{begin} | N Firmware version is same | {firmware_loaded}");
    EXPECT_EQ(device.watches[expand("{consent}")],
              std::pair(&CADAgentd::m_VConfTermChangeCB, daemon));
    EXPECT_EQ(device.watches[expand("{language}")],
              std::pair(&CADAgentd::m_VConfLanguageChangeCB, daemon));
    EXPECT_EQ(device.type_watch, std::pair(&CADAgentd::m_NetWorkTypeChangeCB, daemon));
}

TEST_F(StartUp, AChangedFirmwareDiscardsTheUpdatableCopy) {
    device.put("{version_file}", "T-1100.0");
    construct();
    EXPECT_STEPS(R"({begin} | N File Firmware Version= T-1100.0
        exists {opt_lib} | removed remove_usr_lib_file | {written} | {firmware_loaded})");
    device.remove("{version_file}").remove("{opt_lib}");
    construct();
    EXPECT_STEPS(
        "{begin} | open {version_file} r | N No File | missing {opt_lib} | {written} | "
        "{firmware_loaded}");
}

TEST_F(StartUp, TheUpdatableCopyIsLoadedWhenItCanBe) {
    device.let("found", R"({begin} | N Firmware version is same | exists {opt_agent} | ...
        N t_Initialize so file is {opt_agent} | N Construct | exists {opt_agent})");
    device.let("failed", "{found} | not_opened {opt_agent} | N Successfully get /usr/lib agent so");
    device.let("discarded", R"(N Remove adagent /opt/usr/lib | exists {opt_lib}
        removed remove_usr_lib_file | {written})");
    device.put("{opt_agent}");
    construct();
    EXPECT_STEPS("{found} | opened {opt_agent} | N Successfully get so | {initialised}");
    device.loader_errors = {expand("{opt_agent}")};
    construct();
    EXPECT_STEPS("{failed} | opened {firmware_agent} | {discarded} | {initialised}");
    device.not_found = device.loader_errors = {expand("{opt_agent}"), expand("{firmware_agent}")};
    construct();
    EXPECT_STEPS(R"({failed} | not_opened {firmware_agent} | {discarded}
        unopened GetAdAgentInit | connection_create called | ...)");
}

TEST_F(StartUp, AFailureEndsNothing) {
    device.let("connection", R"(connection_create called
        E connection_create is failed -12 | N GetConnectionProfile enter!\s
        connection_get_type null | ... | N profile = 0 | E GetConnectionProfile failed)");
    device.loader_errors = {"ad_agent_init"};
    device.answers["connection_create"] = {-12, -12};
    device.profiles = {};
    construct();
    EXPECT_STEPS("... | unresolved GetAdAgentInit ad_agent_init | {connection}");
    device.memory_is_full = true;
    construct();
    EXPECT_STEPS(R"(... | N t_Initialize so file is {firmware_agent}
        E New CADLibs failed | {connection})");
}

class Gate : public ControllerTest {};

TEST_F(Gate, NeedsTheNetworkAndConsent) {
    device.let("entry", "N [CADAgentd] Start");
    device.let("asked", R"(connection_get_type connection | N connection type: 1
        connection_get_wifi_state connection)");
    device.let("down", R"({asked} | N ----bRet is:0----\n)");
    device.let("up", R"({asked} | N ----bRet is:1----\n
        N Network is Working | vconf_get_int {consent})");
    device.connection_state = 1;
    EXPECT_RUN(daemon_.Start(), false, R"({entry} | {down} | {down} | {down}
        E Network is unstable or disconnected, Please check network)");
    device.connection_state = 2;
    device.answers["connection_get_wifi_state"] = {-1, -1};
    device.answers["vconf_get_int"] = {-1};
    EXPECT_RUN(daemon_.Start(), false,
               "{entry} | {down} | {down} | {up} | E [CADAgentd] T&C did not agree !!!");
    for (const int consent : {0, 2, -1, 257}) {
        device.let("consented", std::to_string(consent)).consent = consent;
        EXPECT_RUN(daemon_.Start(), true, R"({entry} | {up} | N [CADAgentd] T&C is = [{consented}].
            N [CADAgentd] Start end)");
    }
    device.consent = 1;
    device.on_sleep = [this] { EXPECT_FALSE(daemon_.m_bStartDone); };
    EXPECT_RUN(daemon_.Start(), true, R"({entry} | {up} | N [CADAgentd] T&C is = [1].
        N [CADAgentd] m_CheckZelPath | ... | N [CADAgentd] m_DownloadImg end
        N [CADAgentd] Start end)");
    EXPECT_RUN(daemon_.Start(), true,
               R"({entry} | N Already done. Do not launch "Start" function)");
}

}  // namespace
}  // namespace daemon_tests
