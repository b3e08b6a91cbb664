#include "adagentd.h"
#include "recorder.h"

/** The daemon's own. */
extern "C" int __real_main();  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace daemon_tests {
namespace {

class Lifecycle : public DaemonTest {
protected:
    Lifecycle() {
        device.let("unwatched", R"(@UnRegisterNetWorkStateChangeCB
            N UnRegisterNetWorkStateChangeCB in | connection_profile_unset_state_changed_cb)");
        device.let("torn_down", R"(resolved GetAdAgentClear ad_agent_clear | ad_agent_clear called
            closed | @ADLibs.~CADLibs | N Destory | @ADLibs.Destory | N [CADLibs] Destory
            {unwatched} profile 0 | connection_destroy connection)");
    }

    /** Deletes the controller, as main does. */
    static void end() { delete std::exchange(gpadagentd, nullptr); }
};

/** One day of a television on its updatable copy, which finds a newer image. */
TEST_F(Lifecycle, AWholeDayIsWrittenLineByLine) {
    device.put("{version_file}", "T-1200.3").put("{opt_agent}").put("{stored}");
    device.put("{firmware_xml}", "<Zel><Version>1.00</Version></Zel>");
    device.put("{cache_xml}", "<Cache><SoVersion>1.05</SoVersion></Cache>");
    device.put("{mount_point}/").put("/opt/down/zels/zelADAgent/").update_result = -1;
    device.in_loop = [] {
        keynode_t node = {expand("{language}"), 40, 0};
        CADAgentd::m_VConfLanguageChangeCB(&node, gpadagentd);
        sig_quit(15);
    };
    EXPECT_RUN(__real_main(), 0,
               R"(setvbuf stdout by lines | @adagentd.main | N main | g_type_init
        g_main_loop_new default running | signal 15 sig_quit | signal 1 sig_quit | signal 2 sig_quit
        @adagentd.adagentd_Start | N MOX Mounter Start... | @CADAgentd | N Construct
        @t_Initialize | N t_Initialize In
        vconf_notify_key_changed {consent} | vconf_notify_key_changed {language}
        @m_CheckFirmVersion | N m_CheckFirmVersion | system_info_get_value_string 1104
        N Current Firmware Version= T-1200.3 | open {version_file} r
        N File Firmware Version= T-1200.3 | N Firmware version is same | exists {opt_agent}
        xml_read {firmware_xml} Zel Version 1.00 | xml_read {cache_xml} Cache SoVersion 1.05
        @t_Initialize | N t_Initialize so file is {opt_agent} | @ADLibs.CADLibs | N Construct
        exists {opt_agent} | opened {opt_agent} | @t_Initialize | N Successfully get so
        resolved GetAdAgentInit ad_agent_init | ad_agent_init called | connection_create called
        @m_GetConnectionProfile | N GetConnectionProfile enter!\s | connection_get_type connection
        E connection type: 1 | N connection type: WIFI
        connection_get_profile_iterator connection 0 | taken 0 | connection_destroy iterator
        N profile = a10 | connection_profile_set_state_changed_cb profile 0
        connection_set_type_changed_cb connection

        @Start | N [CADAgentd] Start | @m_IsValidNetwork | connection_get_type connection
        N connection type: 1 | connection_get_wifi_state connection | N ----bRet is:1----\n
        @Start | N Network is Working | vconf_get_int {consent} | N [CADAgentd] T&C is = [1].
        @m_CheckZelPath | N [CADAgentd] m_CheckZelPath
        exists {opt_lib} | exists /opt/usr/apps/adagent | exists {mount_point}
        N [CADAgentd] Don't check /opt/usr/apps/adagent/zelADAgentCache.xml
        created create_file_apps_zeladagent_xml
        exists /opt/down/zels/zelADAgent | exists {store}
        @m_RequestData | N [CADAgentd] m_RequestData | exists {opt_agent}
        exists {ready} | N [CADAgentd] Vconf is ready! | config_resolved
        ad_agent_config_server /TileAd/v2 | usleep 4000000 | ad_agent_config_server /AppsAd/v2

        @m_Update | N [CADAgentd] m_Update | usleep 10000000 | N [CADAgentd] m_DownloadImg begin
        @m_DownloadImg | N [CADAgentd] m_DownloadImg begin | version_read 1.05
        N [CADAgentd] m_DownloadImg,strImgVersion = 1.05.
        exists {opt_agent} | N [CADAgentd] call update API.
        resolved GetAdAgentUpdate ad_agent_update | ad_agent_update 1.05
        N [CADAgentd] Download img from server success, replace img file. | @ADUtils.ad_replace_img
        N [CADAgentd] ReplaceFile, use [{downloaded}] replace [{stored}].
        exists {downloaded} | exists {store} | ran ad-mounter --replaceimg {downloaded} {stored}
        N ReplaceFile done !!\n | @m_DownloadImg | N [CADAgentd] m_DownloadImg end
        @m_ReplaceLibSo | N [CADAgentd] m_ReplaceLibSo start | version_read 1.06
        exists {opt_agent} | N [CADAgentd] m_ReplaceLibSo, call get so version API
        resolved GetAdAgentGetSoVersion ad_agent_get_soversion | ad_agent_get_soversion into zeros
        N [CADAgentd] strSoVersion = 1.05, strImgVersion = 1.06.
        N [CADAgentd] m_ReplaceLibSo, Copy Lib | exists {mount_point} | mounted
        N [CADAgentd] m_DownloadImg, mount img file {stored} to {mount_point} success
        @ADUtils.ad_copy | N ad_remove_lib_so_path in | agent_installed | player_installed
        missing {player_res} | @ADUtils.ad_copy_player_res
        N [ad_copy_player_res] use [{img_res}] replace [{player_res}].
        exists {img_res} | ran ad-mounter --copy_all {img_res} {player_res}
        resolved GetAdAgentSetSoVersion ad_agent_set_soversion | ad_agent_set_soversion 1.06
        unmounted | @m_ReplaceLibSo | N [CADAgentd] m_ReplaceLibSo end
        @Start | N [CADAgentd] Start end

        g_main_loop_run | @m_VConfLanguageChangeCB | N [CADAgentd] m_VConfLanguageChangeCB
        N [CADAgentd] Vconf key {language} changed, reset config server | config_requested
        @adagentd.sig_quit | N adagentd is stopped by signal, which is [15] | g_main_loop_quit
        @~CADAgentd | N Destory | {torn_down}
        g_main_loop_unref | @adagentd.main | N reset signal handler to default
        signal 15 default | signal 2 default | signal 1 default)");
    EXPECT_EQ(gpadagentd, nullptr);
}

TEST_F(Lifecycle, ItEndsWithoutALoop) {
    device.loop_can_be_made = false;
    EXPECT_RUN(__real_main(), -1, "... | @adagentd.main | E g_main_loop_new failed");
}

TEST_F(Lifecycle, OnlyTheThreeSignalsQuitTheLoop) {
    for (int number = 0; number < 32; ++number) sig_quit(number);
    EXPECT_STEPS((void)0, R"(@adagentd.sig_quit
        N adagentd is stopped by signal, which is [1] | g_main_loop_quit
        N adagentd is stopped by signal, which is [2] | g_main_loop_quit
        N adagentd is stopped by signal, which is [15] | g_main_loop_quit)");
}

TEST_F(Lifecycle, TheUnusedHandlerTearsDownOnTermination) {
    device.let("@", "adagentd.sigterm_handler").consent = 0;
    EXPECT_STEPS(sigterm_handler(15), "N Mounter-Server stopped by kill signal");
    EXPECT_TRUE(adagentd_Start());
    transcript();
    for (const int number : {1, 2, 15}) sigterm_handler(number);
    EXPECT_STEPS(end(), R"({torn_down}
        @adagentd.sigterm_handler | N Mounter-Server stopped by kill signal
        @~CADAgentd | N Destory | {unwatched} null | connection_destroy connection)");
    device.connection_type = 0;
    device.loader_errors = {"ad_agent_clear"};
    EXPECT_FALSE(adagentd_Start());
    EXPECT_STEPS(end(), "... | unresolved GetAdAgentClear ad_agent_clear | closed | ...");
}

class Gate : public ControllerTest {};

TEST_F(Gate, NeedsTheNetworkAndConsent) {
    device.let("asked", R"(@m_IsValidNetwork | connection_get_type connection
        N connection type: 1 | connection_get_wifi_state connection)");
    device.let("down", R"({asked} | N ----bRet is:0----\n | @Start)");
    device.let("up", R"({asked} | N ----bRet is:1----\n | @Start
        N Network is Working | vconf_get_int {consent})");
    device.let("@", "Start").let("entry", "N [CADAgentd] Start").connection_state = 1;
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
    device.remove("{opt_lib}").fail("create_path_apps_adagent");
    device.on_sleep = [this] { EXPECT_FALSE(daemon_.m_bStartDone); };
    EXPECT_RUN(daemon_.Start(), true, R"({entry} | {up} | N [CADAgentd] T&C is = [1].
        @m_CheckZelPath | N [CADAgentd] m_CheckZelPath
        missing {opt_lib} | created create_path_usr_lib
        missing /opt/usr/apps/adagent | not_created create_path_apps_adagent
        missing {mount_point} | created create_path_apps_zeladagent
        N [CADAgentd] Don't check /opt/usr/apps/adagent/zelADAgentCache.xml
        created create_file_apps_zeladagent_xml
        missing /opt/down/zels/zelADAgent | created create_path_zeladagent
        missing {store} | created create_path_zeladagent_img
        @m_RequestData | N [CADAgentd] m_RequestData | ...
        @m_DownloadImg | N [CADAgentd] m_DownloadImg end | @Start | N [CADAgentd] Start end)");
    EXPECT_RUN(daemon_.Start(), true,
               R"({entry} | N Already done. Do not launch "Start" function)");
    device.on_sleep = nullptr;
    EXPECT_TRUE(daemon_.m_CheckZelPath() && daemon_.m_Update());
}

}  // namespace
}  // namespace daemon_tests
