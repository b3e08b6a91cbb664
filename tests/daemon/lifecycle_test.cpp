#include "adagentd.h"
#include "recorder.h"

#include <new>

/** The daemon's own. */
extern "C" int __real_main();  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace daemon_tests {
namespace {

class Lifecycle : public DaemonTest {
protected:
    Lifecycle() {
        device.let("torn_down", R"(resolved GetAdAgentClear ad_agent_clear | ad_agent_clear called
            N [CADLibs] Destory | N [CADLibs] begine to dlclose. | dlclose
            N Destory | N [CADLibs] Destory | N UnRegisterNetWorkStateChangeCB in
            connection_profile_unset_state_changed_cb profile 0 | connection_destroy connection)");
    }

    /** Deletes the controller, as main does. */
    static void end() {
        delete gpadagentd;
        gpadagentd = nullptr;
    }
};

/** One day of a television on its updatable copy, which finds a newer image. */
TEST_F(Lifecycle, AWholeDayIsWrittenLineByLine) {
    device.put("{version_file}", "T-1200.3").put("{opt_agent}").put("{stored}");
    device.put("{firmware_xml}", "<Zel><Version>1.00</Version></Zel>");
    device.put("{cache_xml}", "<Cache><SoVersion>1.05</SoVersion></Cache>");
    device.make_directory("{mount_point}").make_directory("/opt/down/zels/zelADAgent");
    device.update_result = 1;
    device.in_loop = [] {
        ASSERT_NE(gpadagentd, nullptr);
        keynode_t node = {expand("{language}"), 40, 0};
        const auto& [callback, daemon] = device.watches[node.name];
        ASSERT_NE(callback, nullptr);
        callback(&node, daemon);
        device.signal_handlers[15](15);
    };
    EXPECT_RUN(__real_main(), 0,
               R"(setvbuf stdout by lines | N main | g_type_init | g_main_loop_new default running
        signal 15 sig_quit | signal 1 sig_quit | signal 2 sig_quit
        N MOX Mounter Start... | N Construct | N t_Initialize In
        vconf_notify_key_changed {consent} | vconf_notify_key_changed {language}
        N m_CheckFirmVersion | system_info_get_value_string 1104
        N Current Firmware Version= T-1200.3 | open {version_file} r
        N File Firmware Version= T-1200.3
        N Firmware version is same
        exists {opt_agent}
        N [CADAgentd] m_GetXmlValue, file {firmware_xml}, first key Zel, secodn key Version
        exists {firmware_xml} | open {firmware_xml} rb
        N [CADAgentd] m_GetXmlValue so version = 1.00
        N [CADAgentd] m_GetXmlValue, file {cache_xml}, first key Cache, secodn key SoVersion
        exists {cache_xml} | open {cache_xml} rb
        N [CADAgentd] m_GetXmlValue so version = 1.05
        N t_Initialize so file is {opt_agent} | N Construct
        exists {opt_agent} | opened {opt_agent} | N Successfully get so
        resolved GetAdAgentInit ad_agent_init | ad_agent_init called
        connection_create called
        N GetConnectionProfile enter!\s | connection_get_type connection | E connection type: 1
        N connection type: WIFI | connection_get_profile_iterator connection 0
        connection_profile_iterator_next iterator | connection_profile_get_type profile 0
        connection_destroy iterator | N profile = a10
        connection_profile_set_state_changed_cb profile 0
        connection_set_type_changed_cb connection

        N [CADAgentd] Start | connection_get_type connection | N connection type: 1
        connection_get_wifi_state connection | N ----bRet is:1----\n | N Network is Working
        vconf_get_int {consent} | N [CADAgentd] T&C is = [1].
        N [CADAgentd] m_CheckZelPath
        exists {opt_lib} | exists /opt/usr/apps/adagent | exists {mount_point}
        N [CADAgentd] Don't check /opt/usr/apps/adagent/zelADAgentCache.xml
        created create_file_apps_zeladagent_xml
        exists /opt/down/zels/zelADAgent | exists {store}

        N [CADAgentd] m_RequestData | exists {opt_agent}
        exists {ready} | N [CADAgentd] Vconf is ready!
        config_resolved | ad_agent_config_server /TileAd/v2 | usleep 4000000
        ad_agent_config_server /AppsAd/v2

        N [CADAgentd] m_Update | usleep 10000000
        N [CADAgentd] m_DownloadImg begin | N [CADAgentd] m_DownloadImg begin
        version_read 1.05 | N [CADAgentd] m_DownloadImg,strImgVersion = 1.05.
        exists {opt_agent} | N [CADAgentd] call update API.
        resolved GetAdAgentUpdate ad_agent_update | ad_agent_update 1.05
        N [CADAgentd] Download img from server success, replace img file.
        N [CADAgentd] ReplaceFile, use [{downloaded}] replace [{stored}].
        exists {downloaded} | exists {store}
        ran ad-mounter --replaceimg {downloaded} {stored} | N ReplaceFile done !!\n
        N [CADAgentd] m_DownloadImg end
        N [CADAgentd] m_ReplaceLibSo start | version_read 1.06 | exists {opt_agent}
        N [CADAgentd] m_ReplaceLibSo, call get so version API
        resolved GetAdAgentGetSoVersion ad_agent_get_soversion
        ad_agent_get_soversion into zeros
        N [CADAgentd] strSoVersion = 1.05, strImgVersion = 1.06.
        N [CADAgentd] m_ReplaceLibSo, Copy Lib | exists {mount_point} | mounted
        N [CADAgentd] m_DownloadImg, mount img file {stored} to {mount_point} success
        N ad_remove_lib_so_path in | agent_installed | player_installed | missing {player_res}
        N [ad_copy_player_res] use [{img_res}] replace [{player_res}].
        exists {img_res} | ran ad-mounter --copy_all {img_res} {player_res}
        resolved GetAdAgentSetSoVersion ad_agent_set_soversion | ad_agent_set_soversion 1.06
        unmounted | N [CADAgentd] m_ReplaceLibSo end
        N [CADAgentd] Start end

        g_main_loop_run | N [CADAgentd] m_VConfLanguageChangeCB
        N [CADAgentd] Vconf key {language} changed, reset config server | config_requested
        N adagentd is stopped by signal, which is [15] | g_main_loop_quit
        N Destory | {torn_down}
        g_main_loop_unref | N reset signal handler to default
        signal 15 default | signal 2 default | signal 1 default)");
    EXPECT_EQ(gpadagentd, nullptr);
    std::string places;
    for (const auto& [file, functions] : origins) {
        places += file + ":";
        for (const std::string& function : functions) places += " " + function;
        places += "\n";
    }
    EXPECT_EQ(
        places,
        "ADLibs.cpp: CADLibs Destory GetAdAgentClear GetAdAgentConfigServer "
        "GetAdAgentGetSoVersion GetAdAgentInit GetAdAgentSetSoVersion GetAdAgentUpdate Start "
        "m_GetHanlder ~CADLibs\nADUtils.cpp: ad_copy ad_copy_lib ad_copy_lib_fwk "
        "ad_copy_lib_player ad_copy_player_res ad_mount ad_mounter_create ad_replace_img ad_umount "
        "check_existed system_cmd\nCADAgentd.cpp: CADAgentd Start UnRegisterNetWorkStateChangeCB "
        "m_CheckFirmVersion m_CheckZelPath m_DownloadImg m_GetConnectionProfile m_GetImgVersion "
        "m_GetXmlValue m_IsValidNetwork m_ReplaceLibSo m_RequestData m_Update "
        "m_VConfLanguageChangeCB t_Initialize ~CADAgentd\n"
        "adagentd.cpp: adagentd_Start main sig_quit\n");
}

TEST_F(Lifecycle, ItEndsWithoutALoop) {
    device.loop_can_be_made = false;
    EXPECT_RUN(__real_main(), -1,
               "... | g_main_loop_new default running | E g_main_loop_new failed");
}

TEST_F(Lifecycle, OnlyTheThreeSignalsQuitTheLoop) {
    for (int number = 0; number < 32; ++number) sig_quit(number);
    EXPECT_STEPS(R"(N adagentd is stopped by signal, which is [1] | g_main_loop_quit
        N adagentd is stopped by signal, which is [2] | g_main_loop_quit
        N adagentd is stopped by signal, which is [15] | g_main_loop_quit)");
}

TEST_F(Lifecycle, TheUnusedHandlerTearsDownOnTermination) {
    sigterm_handler(15);
    EXPECT_STEPS("N Mounter-Server stopped by kill signal");
    device.consent = 0;
    EXPECT_TRUE(adagentd_Start());
    transcript();
    for (const int number : {1, 2, 15}) sigterm_handler(number);
    EXPECT_STEPS("{torn_down} | N Mounter-Server stopped by kill signal");
    end();
    EXPECT_STEPS(R"(N Destory | N UnRegisterNetWorkStateChangeCB in
        connection_profile_unset_state_changed_cb null | connection_destroy connection)");
}

TEST_F(Lifecycle, AFailedStartIsHandedOn) {
    device.throws_on_watch = true;
    EXPECT_THROW(adagentd_Start(), std::bad_alloc);
    EXPECT_EQ(gpadagentd, nullptr);
    device.throws_on_watch = false;
    device.connection_type = 0;
    device.loader_errors = {"ad_agent_clear"};
    EXPECT_FALSE(adagentd_Start());
    transcript();
    end();
    EXPECT_STEPS(R"(N Destory | unresolved GetAdAgentClear ad_agent_clear
        N [CADLibs] Destory | N [CADLibs] begine to dlclose. | ...)");
}

}  // namespace
}  // namespace daemon_tests
