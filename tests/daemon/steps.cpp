#include "recorder.h"

#include <algorithm>
#include <sstream>

#include <glib.h>

namespace daemon_tests {
namespace {

const std::map<std::string, std::string> PATHS = {
    {"opt_lib", "/opt/usr/lib"},
    {"opt_agent", "/opt/usr/lib/libad-agent-fwk.so"},
    {"firmware_agent", "/usr/lib/libad-agent-fwk.so"},
    {"firmware_xml", "/usr/bin/zels/zelADAgent/zelADAgent.xml"},
    {"cache_xml", "/opt/usr/apps/adagent/zelADAgentCache.xml"},
    {"downloaded", "/opt/usr/apps/adagent/zelADAgent.img"},
    {"stored", "/opt/down/zels/zelADAgent_img/zelADAgent.img"},
    {"store", "/opt/down/zels/zelADAgent_img"},
    {"mount_point", "/opt/usr/apps/zelADAgent"},
    {"img_xml", "/opt/usr/apps/zelADAgent/zelADAgent.xml"},
    {"img_agent", "/opt/usr/apps/zelADAgent/libad-agent-fwk.so"},
    {"img_player", "/opt/usr/apps/zelADAgent/libad-player-fwk.so"},
    {"img_res", "/opt/usr/apps/zelADAgent/adplayer/res"},
    {"player_res", "/usr/bin/zels/zelADAgent/adplayer/res"},
    {"version_file", "/opt/media/Documents/adagentversion.txt"},
    {"ready", "/tmp/vconf_ready"},
    {"consent", "db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree"},
    {"language", "db/menu_widget/language"},
};

/** "%*" is all that follows the word, "%1" to "%4" its parts. */
const std::map<std::string, std::string> STEPS = {
    {"looked", "@ADUtils.check_existed | N [check_existed]:[%*] | access %*"},
    {"exists", "looked %* | @ADUtils.check_existed | N [check_existed] Path/File:[%*] exist"},
    {"missing", "looked %* | @ADUtils.check_existed | E [check_existed] Path/File:[%*] not exist"},
    {"command", "@ADUtils.system_cmd | N system command:[%*] | sh %*"},
    {"ran", R"(command %* | @ADUtils.system_cmd
        N system return value = [0x0] | N run sub process successfully.)"},
    {"failed", R"(command %* | @ADUtils.system_cmd
        N system return value = [0x200] | E run sub process failed, exit status code: 2.)"},
    {"named", R"(@ADUtils.%1 | N %1 in | N %1 with command:%3 | N %1, syscmd:ad-mounter %2 %3)"},
    {"done", "named %1 %2 %3 | ran ad-mounter %2 %3 | @ADUtils.%1 | N %1, syscmd done."},
    {"not_done", R"(named %1 %2 %3 | failed ad-mounter %2 %3
        @ADUtils.%1 | E %1, system_cmd ad-mounter %2 %3 failed)"},
    {"created", "done ad_mounter_create --create %1"},
    {"not_created", "not_done ad_mounter_create --create %1"},
    {"removed", "done ad_remove_lib_so_path --remove %1"},
    {"not_removed", "not_done ad_remove_lib_so_path --remove %1"},
    {"mounting", R"(@ADUtils.ad_mount | N [ad_mount] source[{stored}], dest[{mount_point}]
        exists {stored} | exists {mount_point})"},
    {"mounted", R"(mounting | ran ad-mounter --mount {stored} {mount_point}
        @ADUtils.ad_mount | N [ad_mount] Mount done !!\n)"},
    {"not_mounted", R"(mounting | failed ad-mounter --mount {stored} {mount_point}
        @ADUtils.ad_mount | E [ad_mount] Mount failed !!\n)"},
    {"unmounting", R"(@ADUtils.ad_umount | N [ad_umount] Umount[{mount_point}]\n
        %1 ad-mounter --umount {mount_point} | N [ad_umount] umount done !!\n)"},
    {"unmounted", "unmounting ran"},
    {"not_unmounted", "unmounting failed"},
    {"installed", R"(@ADUtils.%1 | N [%1] use [%2] replace [%3].
        @ADUtils.ad_copy_lib | N [ad_copy_lib] use [%2] replace [%3].
        exists %2 | exists {opt_lib} | open %2 rb | N [ad_copy_lib] CopyLib, srcLibSize = %4
        ran ad-mounter --copylib %2 %3 | open %3 rb | N [ad_copy_lib] destLibSize = %4
        N [ad_copy_lib] copy lib with correct size !!\n)"},
    {"agent_installed", "installed ad_copy_lib_fwk {img_agent} {opt_agent} 9"},
    {"player_installed",
     "installed ad_copy_lib_player {img_player} /opt/usr/lib/libad-player-fwk.so 10"},
    {"opening", R"(@ADLibs.Start | N [CADLibs] Start, lib so name is %1 | dlopen %1 1 | dlerror)"},
    {"opened", "opening %1 | @ADLibs.Start | N [CADLibs] Start end"},
    {"not_opened", R"(opening %1 | @ADLibs.Start
        E ERROR: Can't dlopen %1 and error code is broken | N [CADLibs] Start end)"},
    {"got", "@ADLibs.%1 | N [CADLibs] %1 | @ADLibs.m_GetHanlder | N [CADLibs] m_GetHanlder"},
    {"resolved", "got %1 | dlsym %2 | dlerror"},
    {"unresolved", R"(resolved %1 %2 | @ADLibs.m_GetHanlder
        E [CADLibs] m_GetHanlder, dlsym %2 failed and error code is broken)"},
    {"unopened", "got %1 | @ADLibs.m_GetHanlder | E [CADLibs] m_GetHanlder, m_sDlHandle is NULL"},
    {"closed", "@ADLibs.Destory | N [CADLibs] Destory | N [CADLibs] begine to dlclose. | dlclose"},
    {"taken", "connection_profile_iterator_next iterator | connection_profile_get_type profile %1"},
    {"xml_asked", R"(@m_GetXmlValue
        N [CADAgentd] m_GetXmlValue, file %1, first key %2, secodn key %3)"},
    {"xml_missing", R"(xml_asked %1 %2 %3 | missing %1
        @m_GetXmlValue | E [CADAgentd]zelADAgent Xml file %1 not existed.)"},
    {"xml_empty", "xml_asked %1 %2 %3 | exists %1 | open %1 rb"},
    {"xml_read", R"(xml_empty %1 %2 %3
        @m_GetXmlValue | N [CADAgentd] m_GetXmlValue so version = %4)"},
    {"config_resolved", "resolved GetAdAgentConfigServer ad_agent_config_server"},
    {"config_unresolved", R"(unresolved GetAdAgentConfigServer ad_agent_config_server
        E [CADAgentd] fnAgentConfigServer is NULL.)"},
    {"config_requested", R"(config_resolved
        ad_agent_config_server /TileAd/v2 | ad_agent_config_server /AppsAd/v2)"},
    {"version_sought", R"(@m_GetImgVersion | N [CADAgentd] Parse xml version, srcXmlFile = {img_xml}
        exists {stored} | N [CADAgentd] m_GetImgVersion, {stored} exist.)"},
    {"image_seen", R"(version_sought | exists {mount_point} | @m_GetImgVersion
        missing {img_xml} | N [CADAgentd] m_DownloadImg, {img_xml} is not exist, mount img
        mounted | exists {img_xml}
        N [CADAgentd] m_DownloadImg, Parse img version. | N [CADAgentd] test xml 1111
        open {img_xml} rb)"},
    {"version_found", R"(@m_GetImgVersion | N [CADAgentd] test xml 2222
        N [CADCacheMgr] begin to assign pVerText | N [CADAgentd] Version = %1)"},
    {"version_read", R"(image_seen | version_found %1 | @m_GetImgVersion | N bMount = 1.
        unmounted)"},
};

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

/** The lines that the steps stand for, as a transcript has them; log lines come from the function.
 */
std::string script(const std::string& steps, std::string function) {
    std::string separated = expand(steps);
    replace_all(separated, "|", "\n");
    std::istringstream in(separated);
    std::string lines;
    for (std::string step; getline(in >> std::ws, step);) {
        step.erase(step.find_last_not_of(' ') + 1);
        const size_t end = std::min(step.find(' '), step.size());
        const std::string word = step.substr(0, end);
        const std::string all = step.substr(std::min(end + 1, step.size()));
        const auto several = STEPS.find(word);
        if (several != STEPS.end()) {
            std::string meaning = several->second;
            replace_all(meaning, "%*", all);
            std::istringstream parts(all);
            for (const char* mark : {"%1", "%2", "%3", "%4"}) {
                std::string part;
                parts >> part;
                replace_all(meaning, mark, part);
            }
            lines += script(meaning, function);
        } else if (word[0] == '@') {
            function = word.substr(1) + " ";
        } else {
            lines += "- " + (word == "N" || word == "E" ? function : std::string()) + step + "\n";
        }
    }
    return lines;
}

}  // namespace

std::string expand(const std::string& text) {
    std::string result = text;
    if (text.find('{') == std::string::npos) return result;
    for (const auto& names : {device.names, PATHS}) {
        for (const auto& [name, meaning] : names) replace_all(result, "{" + name + "}", meaning);
    }
    return result;
}

void follow_steps(const std::string& steps) {
    const std::string written = transcript();
    const std::string wanted = script(steps, device.names["@"] + " ");
    std::string pattern = wanted;
    replace_all(pattern, "- ...\n", "*");
    const bool followed = g_pattern_match_simple(pattern.c_str(), written.c_str()) != FALSE;
    EXPECT_EQ(followed ? wanted : written, wanted);
}

}  // namespace daemon_tests
