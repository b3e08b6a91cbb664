#include "recorder.h"

#include <fstream>
#include <sstream>

namespace daemon_tests {
namespace {

class FirmwareVersion : public ControllerTest {};
class LibraryChoice : public ControllerTest {};

TEST_F(FirmwareVersion, IsComparedByteByByte) {
    const auto check = [this] { return daemon_.m_CheckFirmVersion(); };
    device.let("query", "N m_CheckFirmVersion | system_info_get_value_string 1104");
    device.let("current", "{query} | N Current Firmware Version= T-1200.3 | open {version_file} r");
    device.remove("{version_file}");
    EXPECT_RUN(check(), false, "{current} | N No File");
    for (const std::string other :
         {"T-1200.3\n", "t-1200.3", "T-1200.3 ", "T-1200", "a\nT-1200.3"}) {
        device.put("{version_file}", other);
        EXPECT_FALSE(check()) << other;
    }
    device.put("{version_file}", std::string("T-1200.3\0", 9));
    EXPECT_FALSE(check()) << "the zero counts";
    transcript();
    device.put("{version_file}");
    EXPECT_RUN(check(), false, "{current} | N No data");
    device.put("{version_file}", "T-1200.3");
    EXPECT_RUN(check(), true,
               "{current} | N File Firmware Version= T-1200.3 | N Firmware version is same");
    device.answers["system_info_get_value_string"] = {-7};
    EXPECT_RUN(check(), false, R"({query} | N Failed getting Firmware version. status= -7
        N Current Firmware Version=\s | open {version_file} r | N File Firmware Version= T-1200.3)");
}

TEST_F(FirmwareVersion, IsWrittenWithoutAnythingAround) {
    const auto written = [this] {
        daemon_.m_WriteFirmVersion();
        std::stringstream text;
        text << std::ifstream(device.host_path("{version_file}")).rdbuf();
        return text.str();
    };
    device.let("query",
               "N m_WriteFirmVersion | open {version_file} w | system_info_get_value_string 1104");
    device.put("{version_file}", "a longer version than the new one");
    EXPECT_RUN(written(), "T-1200.3", "{query} | N Save Firm File done : T-1200.3");
    device.answers["system_info_get_value_string"] = {3};
    EXPECT_RUN(written(), "", R"({query} | N Failed getting Firmware version. status= 3
        N Save Firm File done :\s)");
    device.firmware = std::nullopt;
    EXPECT_RUN(written(), "", R"({query} | N Save Firm File done :\s)");
    device.remove("/opt/media");
    EXPECT_RUN(written(), "", "N m_WriteFirmVersion | open {version_file} w | N Fail to Open File");
}

TEST_F(LibraryChoice, ReadsOneTextFromAManifest) {
    const std::pair<std::string, std::string> rows[] = {
        {"<?xml version=\"1.0\"?>\n<!-- c -->\n<Cache>\n <SoVersion>2</SoVersion>\n</Cache>", "2"},
        {"<Cache><V>1</V><SoVersion>2</SoVersion><SoVersion>3</SoVersion></Cache>", "2"},
        {"<Zel><SoVersion>1.05</SoVersion></Zel>", ""},
        {"<Cache><Version>1.05</Version></Cache>", ""},
        {"<Cache><a><SoVersion>1.05</SoVersion></a></Cache>", ""},
        {"<Cache><SoVersion/></Cache>", ""},
        {"not a manifest", ""},
    };
    device.let("entry", "N [CADAgentd] m_GetXmlValue, file /opt/m.xml, first key");
    for (const auto& [content, value] : rows) {
        const std::string line = "| N [CADAgentd] m_GetXmlValue so version = " + value;
        device.put("/opt/m.xml", content);
        EXPECT_RUN(daemon_.m_GetXmlValue("/opt/m.xml", "Cache", "SoVersion"), value,
                   "{entry} Cache, secodn key SoVersion | exists /opt/m.xml | open /opt/m.xml rb" +
                       (value.empty() ? "" : line));
    }
    EXPECT_RUN(daemon_.m_GetXmlValue("/opt/m.xml", "", "b"), "",
               "{entry} , secodn key b | E [CADAgentd]input sKey is empty.");
    EXPECT_RUN(daemon_.m_GetXmlValue("/opt/m.xml", "a", ""), "",
               R"({entry} a, secodn key\s | E [CADAgentd]input sKey is empty.)");
}

/** Puts a manifest in its place, or none for no version, and gives the steps of reading it. */
std::string manifest(const std::string& file, const std::string& root, const std::string& child,
                     const std::string& version) {
    const std::string entry = "N [CADAgentd] m_GetXmlValue, file {" + file + "}, first key " +
                              root + ", secodn key " + child + "|";
    const std::string tag = child + ">";
    device.let("file", "{" + file + "}").remove("{file}");
    if (version.empty()) {
        return expand(entry +
                      "missing {file} | E [CADAgentd]zelADAgent Xml file {file} not existed.");
    }
    device.put("{file}", "<" + root + "><" + tag + version + "</" + tag + "</" + root + ">");
    return expand(
        entry +
        "exists {file} | open {file} rb | N [CADAgentd] m_GetXmlValue so version = " + version);
}

TEST_F(LibraryChoice, FallsBackOnlyWhenTheNumberIsLower) {
    struct Row {
        std::string firmware;
        std::string cache;
        /** The two numbers as they are logged on the way to the firmware copy. */
        std::string fallback = {};
    };
    const Row rows[] = {
        {"1.05", "1.05"},
        {"1.0", "1.00"},
        {"1.04", "1.05"},
        {"2.10", "2.9"},
        {"1.9", "1.10", "1.100000 and zelADAgent ver is 1.900000"},
        {"0.1", "abc", "0.000000 and zelADAgent ver is 0.100000"},
        {"2.0x", "1.5y", "1.500000 and zelADAgent ver is 2.000000"},
        {"-1", "abc"},
        {"1.0", "nan"},
        {"nan", "1.0"},
        // Equal once they are narrowed, though the texts are not.
        {"16777217", "16777216"},
        {"16777219", "16777217", "16777216.000000 and zelADAgent ver is 16777220.000000"},
        // No manifest gives nothing, which counts as zero.
        {"", ""},
        {"", "0.01"},
        {"0", ""},
        {"0.01", "", "0.000000 and zelADAgent ver is 0.010000"},
    };
    EXPECT_RUN(daemon_.m_GetValidSoFile(), expand("{firmware_agent}"), "missing {opt_agent}");
    for (const Row& row : rows) {
        const bool stays = row.fallback.empty();
        device.put("{opt_agent}").let("fallback", row.fallback);
        device.let("read", manifest("firmware_xml", "Zel", "Version", row.firmware) + "|" +
                               manifest("cache_xml", "Cache", "SoVersion", row.cache));
        EXPECT_RUN(daemon_.m_GetValidSoFile(), expand(stays ? "{opt_agent}" : "{firmware_agent}"),
                   stays ? "exists {opt_agent} | {read}" : R"(exists {opt_agent} | {read}
            N [CADAgentd] lib so version smaller than zelADAgent version, lib so ver is {fallback}
            exists {opt_lib} | removed remove_usr_lib_path
            missing {opt_lib} | created create_path_usr_lib | missing {stored})");
    }
    // The choice stands also when nothing can be removed.
    device.put("{opt_agent}").put("{stored}").fail("--remove", 2);
    EXPECT_RUN(daemon_.m_GetValidSoFile(), expand("{firmware_agent}"),
               R"(... | exists {opt_lib} | not_removed remove_usr_lib_path | exists {opt_lib}
        exists {stored} | not_removed remove_zel_adagent_img_file)");
}

TEST_F(LibraryChoice, MakesTheDirectoriesThatAreMissing) {
    device.remove("{opt_lib}").fail("create_path_apps_adagent");
    EXPECT_RUN(daemon_.m_CheckZelPath(), true, R"(N [CADAgentd] m_CheckZelPath
        missing {opt_lib} | created create_path_usr_lib
        missing /opt/usr/apps/adagent | not_created create_path_apps_adagent
        missing {mount_point} | created create_path_apps_zeladagent
        N [CADAgentd] Don't check /opt/usr/apps/adagent/zelADAgentCache.xml
        created create_file_apps_zeladagent_xml
        missing /opt/down/zels/zelADAgent | created create_path_zeladagent
        missing {store} | created create_path_zeladagent_img)");
}

}  // namespace
}  // namespace daemon_tests
