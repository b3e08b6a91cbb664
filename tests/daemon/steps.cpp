#include "recorder.h"

#include <sstream>

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
    {"exists", R"(N [check_existed]:[%*] | access %* | N [check_existed] Path/File:[%*] exist)"},
    {"missing",
     R"(N [check_existed]:[%*] | access %* | E [check_existed] Path/File:[%*] not exist)"},
    {"ran", R"(N system command:[%*] | sh %*
        N system return value = [0x0] | N run sub process successfully.)"},
    {"failed", R"(N system command:[%*] | sh %*
        N system return value = [0x200] | E run sub process failed, exit status code: 2.)"},
    {"named", R"(N %1 in | N %1 with command:%3 | N %1, syscmd:ad-mounter %2 %3)"},
    {"created", R"(named ad_mounter_create --create %1
        ran ad-mounter --create %1 | N ad_mounter_create, syscmd done.)"},
    {"not_created", R"(named ad_mounter_create --create %1 | failed ad-mounter --create %1
        E ad_mounter_create, system_cmd ad-mounter --create %1 failed)"},
    {"removed", R"(named ad_remove_lib_so_path --remove %1
        ran ad-mounter --remove %1 | N ad_remove_lib_so_path, syscmd done.)"},
    {"not_removed", R"(named ad_remove_lib_so_path --remove %1 | failed ad-mounter --remove %1
        E ad_remove_lib_so_path, system_cmd ad-mounter --remove %1 failed)"},
    {"mounting", R"(N [ad_mount] source[{stored}], dest[{mount_point}]
        exists {stored} | exists {mount_point})"},
    {"mounted", R"(mounting | ran ad-mounter --mount {stored} {mount_point}
        N [ad_mount] Mount done !!\n)"},
    {"not_mounted", R"(mounting | failed ad-mounter --mount {stored} {mount_point}
        E [ad_mount] Mount failed !!\n)"},
    {"unmounted", R"(N [ad_umount] Umount[{mount_point}]\n
        ran ad-mounter --umount {mount_point} | N [ad_umount] umount done !!\n)"},
    {"not_unmounted", R"(N [ad_umount] Umount[{mount_point}]\n
        failed ad-mounter --umount {mount_point} | N [ad_umount] umount done !!\n)"},
    {"installed", R"(N [%1] use [%2] replace [%3]. | N [ad_copy_lib] use [%2] replace [%3].
        exists %2 | exists {opt_lib} | open %2 rb | N [ad_copy_lib] CopyLib, srcLibSize = %4
        ran ad-mounter --copylib %2 %3 | open %3 rb | N [ad_copy_lib] destLibSize = %4
        N [ad_copy_lib] copy lib with correct size !!\n)"},
    {"agent_installed", "installed ad_copy_lib_fwk {img_agent} {opt_agent} 9"},
    {"player_installed",
     "installed ad_copy_lib_player {img_player} /opt/usr/lib/libad-player-fwk.so 10"},
    {"opened", R"(N [CADLibs] Start, lib so name is %1 | dlopen %1 1 | dlerror
        N [CADLibs] Start end)"},
    {"not_opened", R"(N [CADLibs] Start, lib so name is %1 | dlopen %1 1 | dlerror
        E ERROR: Can't dlopen %1 and error code is broken | N [CADLibs] Start end)"},
    {"resolved", R"(N [CADLibs] %1 | N [CADLibs] m_GetHanlder | dlsym %2 | dlerror)"},
    {"unresolved", R"(resolved %1 %2
        E [CADLibs] m_GetHanlder, dlsym %2 failed and error code is broken)"},
    {"unopened", R"(N [CADLibs] %1 | N [CADLibs] m_GetHanlder
        E [CADLibs] m_GetHanlder, m_sDlHandle is NULL)"},
    {"taken", R"(connection_profile_iterator_next iterator
        connection_profile_get_type profile %1)"},
    {"config_resolved", "resolved GetAdAgentConfigServer ad_agent_config_server"},
    {"config_unresolved", R"(unresolved GetAdAgentConfigServer ad_agent_config_server
        E [CADAgentd] fnAgentConfigServer is NULL.)"},
    {"config_requested", R"(config_resolved
        ad_agent_config_server /TileAd/v2 | ad_agent_config_server /AppsAd/v2)"},
    {"version_sought", R"(N [CADAgentd] Parse xml version, srcXmlFile = {img_xml}
        exists {stored} | N [CADAgentd] m_GetImgVersion, {stored} exist.)"},
    {"image_seen", R"(version_sought | exists {mount_point}
        missing {img_xml} | N [CADAgentd] m_DownloadImg, {img_xml} is not exist, mount img
        mounted | exists {img_xml}
        N [CADAgentd] m_DownloadImg, Parse img version. | N [CADAgentd] test xml 1111
        open {img_xml} rb)"},
    {"version_found", R"(N [CADAgentd] test xml 2222 | N [CADCacheMgr] begin to assign pVerText
        N [CADAgentd] Version = %1)"},
    {"version_read", "image_seen | version_found %1 | N bMount = 1. | unmounted"},
};

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

/** The lines that the steps stand for, each ended. */
std::string script(const std::string& steps) {
    std::string separated = expand(steps);
    replace_all(separated, "|", "\n");
    std::istringstream in(separated);
    std::string lines;
    for (std::string step; getline(in, step);) {
        const size_t begin = step.find_first_not_of(' ');
        if (begin == std::string::npos) continue;
        step = step.substr(begin, step.find_last_not_of(' ') + 1 - begin);

        const size_t word = step.find(' ');
        const auto several = STEPS.find(step.substr(0, word));
        if (several == STEPS.end()) {
            lines += step + "\n";
            continue;
        }
        const std::string all = word == std::string::npos ? "" : step.substr(word + 1);
        std::string meaning = several->second;
        replace_all(meaning, "%*", all);
        std::istringstream parts(all);
        for (const char* mark : {"%1", "%2", "%3", "%4"}) {
            std::string part;
            parts >> part;
            replace_all(meaning, mark, part);
        }
        lines += script(meaning);
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
    const std::string gap = "\n...\n";
    const std::string written = "\n" + transcript();
    std::string wanted = "\n" + script(steps);
    bool after_gap = false;
    size_t at = 0;
    for (size_t end = wanted.find(gap); end != std::string::npos; end = wanted.find(gap)) {
        const std::string piece = wanted.substr(0, end + 1);
        const size_t found = written.find(piece, at);
        if (found == std::string::npos || (!after_gap && found != 0)) {
            ADD_FAILURE() << "not in its place:" << piece << "in:" << written;
            return;
        }
        // Pieces begin and end with a line break; two may share one.
        at = found + end;
        after_gap = true;
        wanted = wanted.substr(end + gap.size() - 1);
    }
    if (after_gap && wanted == "\n") return;
    if (after_gap && written.size() - at > wanted.size()) at = written.size() - wanted.size();
    EXPECT_EQ(written.substr(at), wanted);
}

}  // namespace daemon_tests
