#include "recorder.h"

namespace daemon_tests {
namespace {

class ImageUpdate : public ControllerTest {
protected:
    ImageUpdate() {
        device.put("{stored}").put("{opt_agent}", "old agent").put("{mount_point}/");
        device.let("no_binding", "E [CADAgentd] m_pADLibHandler is NULL.");
    }
};

TEST_F(ImageUpdate, TheVersionIsReadFromTheMountedImage) {
    device.let("@", "m_GetImgVersion");
    const auto version = [this] { return daemon_.m_GetImgVersion(); };
    for (const char* manifest : {"<Zel><Sub><Version>1</Version></Sub></Zel>",
                                 "<Zel><Version/></Zel>", "<Version>1.05</Version>"}) {
        device.image_manifest = manifest;
        EXPECT_RUN(version(), "0.00",
                   "image_seen | N [CADAgentd] test xml 2222 | N bMount = 1. | unmounted");
    }
    device.image_manifest = "<!-- c --><Any><V/><Version>1.050</Version><Version>3</Version></Any>";
    EXPECT_RUN(version(), "1.050", "version_read 1.050");
    device.fail("--umount").image_manifest = "no manifest";
    EXPECT_RUN(version(), "0.00",
               "image_seen | N bMount = 1. | not_unmounted | N Umount {mount_point} failed.");
    // It has stayed mounted, and is left so.
    EXPECT_RUN(version(), "0.00", R"(version_sought | exists {mount_point}
        exists {img_xml} | exists {img_xml} | N [CADAgentd] m_DownloadImg, Parse img version.
        N [CADAgentd] test xml 1111 | open {img_xml} rb | N bMount = 0.)");

    device.remove("{mount_point}").fail("--create").fail("--mount", 2);
    device.let("failed", R"(missing {img_xml}
        N [CADAgentd] m_DownloadImg, {img_xml} is not exist, mount img | not_mounted
        N [CADAgentd] m_DownloadImg, mount img file {stored} to {mount_point} failed)");
    EXPECT_RUN(version(), "0.00", R"(version_sought
        missing {mount_point} | not_created create_path_apps_zeladagent
        N [CADAgentd] ad_mounter_create {mount_point} failed.)");
    EXPECT_RUN(version(), "0.00", R"(version_sought | missing {mount_point}
        created create_path_apps_zeladagent | {failed} | missing {img_xml})");
    // The tool tells of a failure, and still the image has come up.
    device.on_command = [] { device.put("{img_xml}", "<Zel><Version>4</Version></Zel>"); };
    EXPECT_RUN(version(), "4", "... | {failed} | exists {img_xml} | ... | N bMount = 0.");
    // An image without a manifest stays mounted.
    device.remove("{img_xml}").on_command = nullptr;
    device.image_manifest = "";
    EXPECT_RUN(version(), "0.00", "... | mounted | missing {img_xml}");
}

TEST_F(ImageUpdate, ADownloadIsWhatTheLibrarySaysItIs) {
    const auto download = [this] { return daemon_.m_DownloadImg(); };
    device.let("@", "m_DownloadImg").let("end", "N [CADAgentd] m_DownloadImg end");
    device.let("begin", "exists {opt_agent} | N [CADAgentd] call update API.");
    device.let("replaced", R"(ad_agent_update 1.05
        N [CADAgentd] Download img from server success, replace img file. | ...
        @ADUtils.ad_replace_img | N ReplaceFile done !!\n | @m_DownloadImg)");
    EXPECT_RUN(download(), 0, "... | ad_agent_update 1.05 | {end}");
    EXPECT_RUN(without_library(download), 0, "... | {begin} | {no_binding} | {end}");
    device.loader_errors = {"ad_agent_update"};
    EXPECT_RUN(download(), 0, R"(... | {begin} | unresolved GetAdAgentUpdate ad_agent_update
        E [CADAgentd] fnAgentUpdate is NULL. | {end})");
    device.loader_errors.clear();
    device.fail("--replaceimg").update_result = 7;
    EXPECT_RUN(download(), 0,
               "... | {replaced} | E [CADAgentd] Replace {downloaded} to {stored} failed. | {end}");
    device.update_result = -3;
    EXPECT_RUN(download(), -3, "... | {replaced} | {end}");

    // Without an image, and then without a library, there is little to ask.
    device.remove("{stored}").remove("{opt_agent}").update_result = 0;
    EXPECT_RUN(download(), 0, R"(N [CADAgentd] m_DownloadImg begin
        @m_GetImgVersion | N [CADAgentd] Parse xml version, srcXmlFile = {img_xml}
        missing {stored} | @m_DownloadImg | N [CADAgentd] m_DownloadImg,strImgVersion = 0.00.
        missing {opt_agent} | exists {firmware_agent} | ... | ad_agent_update 0.00 | {end})");
    device.remove("{firmware_agent}");
    EXPECT_RUN(download(), 0, "... | missing {opt_agent} | missing {firmware_agent} | {end}");
}

TEST_F(ImageUpdate, TheLibraryIsReplacedUnlessTheTextsAreTheSame) {
    const auto replace = [this] { return daemon_.m_ReplaceLibSo(); };
    const auto versions = [](const std::string& library) {
        device.let("versions",
                   "N [CADAgentd] strSoVersion = " + library + ", strImgVersion = 1.05.");
        device.so_version = library;
    };
    device.let("@", "m_ReplaceLibSo").let("end", "N [CADAgentd] m_ReplaceLibSo end");
    device.let("ask", "N [CADAgentd] m_ReplaceLibSo, call get so version API");
    device.let("asked", R"({ask} | resolved GetAdAgentGetSoVersion ad_agent_get_soversion
        ad_agent_get_soversion into zeros | {versions})");
    device.let("copy", "N [CADAgentd] m_ReplaceLibSo, Copy Lib | exists {mount_point}");
    for (const char* version : {"1.050", "1.06", "", "1234567890123456789"}) {
        versions(version);
        EXPECT_RUN(replace(), 1, R"(... | {asked} | {copy} | mounted | ...
            ad_agent_set_soversion 1.05 | unmounted | {end})");
    }
    device.answers = {
        {"--mount", {0, 0x200, 0, 0}}, {"--umount", {0, 0, 0x200}}, {"--copylib", {0x200}}};
    EXPECT_RUN(replace(), 1, "... | {versions} | {copy} | not_mounted | {end}");
    EXPECT_RUN(replace(), 1, R"(... | {copy} | mounted | ...
        @ADUtils.ad_copy | E ad_copy failed in ad_copy_lib_fwk
        @m_ReplaceLibSo | N [CADAgentd] InstallLib {img_agent} to {opt_agent} failed.
        not_unmounted | N Umount {mount_point} failed. | {end})");

    device.remove("{img_xml}");
    versions("0.00");
    EXPECT_RUN(without_library(replace), 1,
               R"(... | {ask} | {no_binding} | {versions} | {copy} | ...
        {no_binding} | unmounted | {end})");
    device.loader_errors = {"ad_agent_get_soversion", "ad_agent_set_soversion"};
    EXPECT_RUN(replace(), 1, R"(... | {ask}
        unresolved GetAdAgentGetSoVersion ad_agent_get_soversion
        E [CADAgentd] fnAgentGetSoVer is NULL. | {versions} | {copy} | ...
        unresolved GetAdAgentSetSoVersion ad_agent_set_soversion
        E [CADAgentd] fnAgentGetSoVer is NULL. | unmounted | {end})");

    device.loader_errors.clear();
    versions("1.05");
    EXPECT_RUN(replace(), 1,
               "... | {asked} | N [CADAgentd] m_ReplaceLibSo, Don't need replace so | {end}");
    device.remove("{opt_agent}");
    EXPECT_RUN(replace(), 1, R"(... | missing {opt_agent}
        N [CADAgentd] ADAG_TARGET_LIB_SO_FILE not existed. | {asked} | {copy} | ...)");

    // The mount point is lost with the image's unmounting, and cannot be made again.
    device.remove("{opt_agent}").fail("--create").on_command = [commands = 0]() mutable {
        if (++commands == 2) device.remove("{mount_point}");
    };
    EXPECT_RUN(replace(), 0, R"(... | N [CADAgentd] m_ReplaceLibSo, Copy Lib
        missing {mount_point} | not_created create_path_apps_zeladagent
        N [CADAgentd] ad_mounter_create {mount_point} failed.)");
}

}  // namespace
}  // namespace daemon_tests
