#include "ADLibs.h"
#include "recorder.h"

#include <array>
#include <fstream>
#include <optional>
#include <sstream>

using namespace std::string_literals;

namespace daemon_tests {
namespace {

class Library : public DaemonTest {};
class LibraryChoice : public ControllerTest {};

TEST_F(Library, StartGoesByTheLoadersErrorAndKeepsTheHandle) {
    CADLibs libs;
    EXPECT_STEPS((void)0, "@ADLibs.CADLibs | N Construct");
    device.loader_errors = {"/lib/a.so"};
    EXPECT_RUN(libs.Start("/lib/a.so"), false, "not_opened /lib/a.so");
    EXPECT_RUN(libs.Start(""), false, R"(@ADLibs.Start | N [CADLibs] Start, lib so name is\s
        E ERROR: Input lib so name is empty | N [CADLibs] Start end)");
    EXPECT_NE(libs.m_sDlHandle, nullptr);
    device.not_found = {"/lib/b.so"};
    EXPECT_RUN(libs.Start("/lib/b.so"), true, "opened /lib/b.so");
}

TEST_F(Library, ResolvesEachEntryPointByItsName) {
    const std::pair<void* (CADLibs::*)(), std::string> rows[] = {
        {&CADLibs::GetAdAgentInit, "Init ad_agent_init"},
        {&CADLibs::GetAdAgentClear, "Clear ad_agent_clear"},
        {&CADLibs::GetAdAgentRegister, "Register ad_agent_register"},
        {&CADLibs::GetAdAgentUnRegister, "UnRegister ad_agent_unregister"},
        {&CADLibs::GetAdAgentRequestSync, "RequestSync ad_agent_request_sync"},
        {&CADLibs::GetAdAgentReport, "Report ad_agent_report"},
        {&CADLibs::GetAdAgentLaunch, "Launch ad_agent_launch"},
        {&CADLibs::GetAdAgentPsidGet, "PsidGet ad_agent_psid_get"}};
    CADLibs libs;
    libs.Start("/lib/a.so");
    transcript();
    for (const auto& [getter, names] : rows) {
        EXPECT_RUN((libs.*getter)() != nullptr, true, "resolved GetAdAgent" + names);
    }
    // Its line has its neighbour's name.
    EXPECT_RUN(libs.GetAdAgentRequest() != nullptr, true, R"(
        @ADLibs.GetAdAgentRequest | N [CADLibs] GetAdAgentUnRegister
        @ADLibs.m_GetHanlder | N [CADLibs] m_GetHanlder | dlsym ad_agent_request | dlerror)");
    // An address that comes with an error is not to be trusted.
    device.loader_errors = {"ad_agent_init"};
    EXPECT_RUN(libs.GetAdAgentInit(), nullptr, "unresolved GetAdAgentInit ad_agent_init");
    EXPECT_RUN(libs.m_GetHanlder(""), nullptr, R"(@ADLibs.m_GetHanlder | N [CADLibs] m_GetHanlder
        E [CADLibs] m_GetHanlder, input sHanderName is empty)");
    EXPECT_STEPS(libs.Destory(), "closed");
    EXPECT_STEPS(libs.Destory(), "@ADLibs.Destory | N [CADLibs] Destory");
    EXPECT_RUN(libs.GetAdAgentClear(), nullptr, "unopened GetAdAgentClear");
}

TEST_F(LibraryChoice, TheFirmwareVersionIsComparedByteByByte) {
    device.let("@", "m_CheckFirmVersion");
    const auto check = [this] { return daemon_.m_CheckFirmVersion(); };
    device.let("query", "N m_CheckFirmVersion | system_info_get_value_string 1104");
    device.let("current", "{query} | N Current Firmware Version= T-1200.3 | open {version_file} r");
    device.remove("{version_file}");
    EXPECT_RUN(check(), false, "{current} | N No File");
    for (const std::string& other :
         {"T-1200.3\n"s, "t-1200.3"s, "T-1200.3 "s, "T-1200"s, "a\nT-1200.3"s, "T-1200.3\0"s}) {
        device.put("{version_file}", other);
        EXPECT_RUN(check(), false, "{current} | ...");
    }
    device.put("{version_file}");
    EXPECT_RUN(check(), false, "{current} | N No data");
    device.put("{version_file}", "T-1200.3");
    device.let("file", "N File Firmware Version= T-1200.3");
    EXPECT_RUN(check(), true, "{current} | {file} | N Firmware version is same");
    device.answers["system_info_get_value_string"] = {-7};
    EXPECT_RUN(check(), false, R"({query} | N Failed getting Firmware version. status= -7
        N Current Firmware Version=\s | open {version_file} r | {file})");
}

TEST_F(LibraryChoice, TheFirmwareVersionIsWrittenWithoutAnythingAround) {
    const auto written = [this] {
        daemon_.m_WriteFirmVersion();
        std::stringstream text;
        text << std::ifstream(device.host_path("{version_file}")).rdbuf();
        return text.str();
    };
    device.let("@", "m_WriteFirmVersion")
        .let("open", "N m_WriteFirmVersion | open {version_file} w");
    device.put("{version_file}", "a longer version than the new one");
    EXPECT_RUN(written(), "T-1200.3", R"({open} | system_info_get_value_string 1104
        N Save Firm File done : T-1200.3)");
    device.answers["system_info_get_value_string"] = {3};
    EXPECT_RUN(written(), "", R"(... | N Failed getting Firmware version. status= 3
        N Save Firm File done :\s)");
    device.remove("/opt/media");
    EXPECT_RUN(written(), "", "{open} | N Fail to Open File");
}

TEST_F(LibraryChoice, ReadsOneTextFromAManifest) {
    const auto value = [this] { return daemon_.m_GetXmlValue("/opt/m.xml", "Cache", "SoVersion"); };
    for (const char* content :
         {"<Zel><SoVersion>1.05</SoVersion></Zel>", "<Cache><Version>1.05</Version></Cache>",
          "<Cache><a><SoVersion>1.05</SoVersion></a></Cache>", "<Cache><SoVersion/></Cache>",
          "not a manifest"}) {
        device.put("/opt/m.xml", content);
        EXPECT_RUN(value(), "", "xml_empty /opt/m.xml Cache SoVersion");
    }
    device.put("/opt/m.xml",
               "<?xml version=\"1.0\"?>\n<!-- c -->\n<Cache>\n <V>1</V>"
               "<SoVersion>2</SoVersion><SoVersion>3</SoVersion></Cache>");
    EXPECT_RUN(value(), "2", "xml_read /opt/m.xml Cache SoVersion 2");
    device.let("@", "m_GetXmlValue").let("entry", "N [CADAgentd] m_GetXmlValue, file a, first key");
    EXPECT_RUN(daemon_.m_GetXmlValue("a", "", "b"), "",
               "{entry} , secodn key b | E [CADAgentd]input sKey is empty.");
    EXPECT_RUN(daemon_.m_GetXmlValue("a", "b", ""), "",
               R"({entry} b, secodn key\s | E [CADAgentd]input sKey is empty.)");
}

/** Puts a manifest in its place, or none for no version, and gives the step of reading it. */
std::string manifest(const std::string& file, const std::string& root, const std::string& child,
                     const std::string& version) {
    const std::string names = file + " " + root + " " + child + " ", tag = child + ">";
    device.remove(file);
    if (version.empty()) return "xml_missing " + names;
    device.put(file, "<" + root + "><" + tag + version + "</" + tag + "</" + root + ">");
    return "xml_read " + names + version;
}

TEST_F(LibraryChoice, FallsBackOnlyWhenTheNumberIsLower) {
    // The versions of the firmware and the cache, and for the firmware copy their numbers in the
    // log.
    const std::array<std::string, 3> rows[] = {
        {"1.05", "1.05"},
        {"2.10", "2.9"},
        {"1.9", "1.10", "1.100000 and zelADAgent ver is 1.900000"},
        {"2.0x", "1.5y", "1.500000 and zelADAgent ver is 2.000000"},
        {"-1", "abc"},
        {"1.0", "nan"},
        {"nan", "1.0"},
        // Equal once they are narrowed, though the texts are not.
        {"16777217", "16777216"},
        // No manifest gives nothing, which counts as zero.
        {"", ""},
        {"0", ""},
        {"0.01", "", "0.000000 and zelADAgent ver is 0.010000"},
    };
    const auto choice = [this] { return daemon_.m_GetValidSoFile(); };
    const std::string copy = expand("{opt_agent}"), firmware = expand("{firmware_agent}");
    for (const auto& [firmware_version, cache_version, fallback] : rows) {
        const bool stays = fallback.empty();
        device.put("{opt_agent}").let("fallback", fallback);
        const std::string read = "exists {opt_agent} |" +
                                 manifest("{firmware_xml}", "Zel", "Version", firmware_version) +
                                 "|" + manifest("{cache_xml}", "Cache", "SoVersion", cache_version);
        EXPECT_RUN(choice(), stays ? copy : firmware, stays ? read : read + R"( | @m_GetValidSoFile
            N [CADAgentd] lib so version smaller than zelADAgent version, lib so ver is {fallback}
            exists {opt_lib} | removed remove_usr_lib_path
            missing {opt_lib} | created create_path_usr_lib | missing {stored})");
    }
    // The choice stands also when nothing can be removed.
    device.put("{opt_agent}").put("{stored}").fail("--remove", 2);
    EXPECT_RUN(choice(), firmware,
               R"(... | exists {opt_lib} | not_removed remove_usr_lib_path | exists {opt_lib}
        exists {stored} | not_removed remove_zel_adagent_img_file)");
}

class StartUp : public DaemonTest {
protected:
    StartUp() {
        device.put("{version_file}", "T-1200.3").let("@", "t_Initialize");
        device.let("begin", R"(@CADAgentd | N Construct | @t_Initialize | N t_Initialize In
            vconf_notify_key_changed {consent} | vconf_notify_key_changed {language}
            @m_CheckFirmVersion | N m_CheckFirmVersion | ...)");
        device.let("same", "{begin} | N Firmware version is same | @t_Initialize");
        device.let("written", R"(@m_WriteFirmVersion | N m_WriteFirmVersion | open {version_file} w
            system_info_get_value_string 1104 | N Save Firm File done : T-1200.3 | @t_Initialize)");
        device.let("libs", "@ADLibs.CADLibs | N Construct | @t_Initialize");
        device.let("initialised", R"(resolved GetAdAgentInit ad_agent_init | ad_agent_init called
            connection_create called | ...)");
        device.let("firmware_loaded", R"(missing {opt_agent}
            N t_Initialize so file is {firmware_agent} | {libs} | missing {opt_agent}
            N Successfully get /usr/lib agent so | opened {firmware_agent} | {initialised})");
    }

    /** Makes a new controller in place of the one before. */
    CADAgentd& construct() {
        daemon_.reset();
        transcript();
        return daemon_.emplace();
    }

    std::optional<CADAgentd> daemon_;
};

TEST_F(StartUp, AChangedFirmwareDiscardsTheUpdatableCopy) {
    EXPECT_STEPS(construct(), "{same} | {firmware_loaded}");
    const std::pair<std::string, void*> watches[] = {
        {expand("{consent}"), reinterpret_cast<void*>(CADAgentd::m_VConfTermChangeCB)},
        {expand("{language}"), reinterpret_cast<void*>(CADAgentd::m_VConfLanguageChangeCB)},
        {"connection_profile_set_state_changed_cb",
         reinterpret_cast<void*>(CADAgentd::m_NetworkStateChangeCB)},
        {"connection_set_type_changed_cb",
         reinterpret_cast<void*>(CADAgentd::m_NetWorkTypeChangeCB)}};
    for (const auto& [key, callback] : watches) {
        EXPECT_EQ(device.watches[key], std::pair(callback, static_cast<void*>(&*daemon_))) << key;
    }
    device.put("{version_file}", "T-1100.0");
    EXPECT_STEPS(construct(), R"({begin} | N File Firmware Version= T-1100.0
        exists {opt_lib} | removed remove_usr_lib_file | {written} | {firmware_loaded})");
    device.remove("{version_file}").remove("{opt_lib}");
    EXPECT_STEPS(construct(), R"({begin} | open {version_file} r | N No File | missing {opt_lib}
        {written} | {firmware_loaded})");
}

TEST_F(StartUp, TheUpdatableCopyIsLoadedWhenItCanBe) {
    device.let("found", R"({same} | exists {opt_agent} | ...
        N t_Initialize so file is {opt_agent} | {libs} | exists {opt_agent})");
    device.let("failed", "{found} | not_opened {opt_agent} | N Successfully get /usr/lib agent so");
    device.let("discarded", R"(N Remove adagent /opt/usr/lib | exists {opt_lib}
        removed remove_usr_lib_file | {written})");
    device.put("{opt_agent}");
    EXPECT_STEPS(construct(),
                 "{found} | opened {opt_agent} | N Successfully get so | {initialised}");
    device.loader_errors = {expand("{opt_agent}")};
    EXPECT_STEPS(construct(), "{failed} | opened {firmware_agent} | {discarded} | {initialised}");
    device.not_found = device.loader_errors = {expand("{opt_agent}"), expand("{firmware_agent}")};
    EXPECT_STEPS(construct(), R"({failed} | not_opened {firmware_agent} | {discarded}
        unopened GetAdAgentInit | connection_create called | ...)");
}

TEST_F(StartUp, AFailureEndsNothing) {
    device.let("connection", R"(connection_create called | E connection_create is failed -12
        @m_GetConnectionProfile | N GetConnectionProfile enter!\s | connection_get_type null | ...
        N profile = 0 | @RegisterNetWorkStateChangeCB | E GetConnectionProfile failed)");
    device.loader_errors = {"ad_agent_init"};
    device.answers["connection_create"] = {-12, -12};
    device.profiles = {};
    EXPECT_STEPS(construct(), "... | unresolved GetAdAgentInit ad_agent_init | {connection}");
    device.memory_is_full = true;
    EXPECT_STEPS(construct(), R"(... | N t_Initialize so file is {firmware_agent}
        E New CADLibs failed | {connection})");
}

}  // namespace
}  // namespace daemon_tests
