#include "ADUtils.h"
#include "recorder.h"

#include <filesystem>
#include <tuple>

namespace daemon_tests {
namespace {

class MounterCommands : public DaemonTest {
protected:
    MounterCommands() { device.put("{stored}").put("{mount_point}/"); }
};

TEST_F(MounterCommands, AStatusCountsOnlyAsANormalExitWithZero) {
    const auto run = [] { return system_cmd("tool a b"); };
    device.let("begin", "N system command:[tool a b] | sh tool a b | N system return value =");
    device.answers["tool"] = {0, 0xff00, 0x8b, 0x137f, 0x40, -1};
    EXPECT_RUN(run(), 1, "ran tool a b");
    EXPECT_RUN(run(), 0, "{begin} [0xff00] | E run sub process failed, exit status code: 255.");
    for (const char* status : {"[0x8b]", "[0x137f]", "[0x40]"}) {
        EXPECT_RUN(run(), 0, std::string("{begin} ") + status + "| E exit value = [0]");
    }
    EXPECT_RUN(run(), 0, R"(N system command:[tool a b] | sh tool a b
        E system error, failed to create sub process tool a b.)");
    EXPECT_RUN(system_cmd(nullptr), 0,
               "N system command:[(null)] | E Input system command is NULL");
}

TEST_F(MounterCommands, ExistenceIsToldThroughLinks) {
    std::filesystem::create_symlink("nowhere", device.host_path("/opt/dangling"));
    EXPECT_RUN(check_existed("/opt/usr/lib"), 1, "exists {opt_lib}");
    EXPECT_RUN(check_existed("/opt/dangling"), 0, "missing /opt/dangling");
    EXPECT_RUN(check_existed(nullptr), 0, "N [check_existed]:[(null)]");
}

TEST_F(MounterCommands, NamesAreHandedToTheToolInAtMost254Characters) {
    const std::string name(300, 'x');
    for (const auto& [function, verb, me] :
         {std::tuple(&ad_mounter_create, "create", "ad_mounter_create"),
          std::tuple(&ad_remove_lib_so_path, "remove", "ad_remove_lib_so_path")}) {
        device.let("did", verb + std::string("d a_name")).let("me", me);
        device.let("cut", ("ad-mounter --" + std::string(verb) + " " + name).substr(0, 254));
        EXPECT_RUN(function("a_name"), 1, "{did}");
        device.fail("a_name");
        EXPECT_RUN(function("a_name"), 0, "not_{did}");
        EXPECT_RUN(function(nullptr), 0, "N {me} in | E {me} input scommand is NULL");
        EXPECT_RUN(function(name.c_str()), 1, "... | N {me}, syscmd:{cut} | ran {cut} | ...");
    }
}

TEST_F(MounterCommands, AnImageIsMountedAndUnmounted) {
    device.answers = {{"--mount", {0, 0x200}}, {"--umount", {0, 0x200}}, {"--create", {0x200}}};
    EXPECT_RUN(ad_mount(), 1, "mounted");
    EXPECT_RUN(ad_umount(), 1, "unmounted");
    EXPECT_RUN(ad_mount(), 0, "not_mounted");
    EXPECT_RUN(ad_umount(), 0, "not_unmounted");
    device.remove("{mount_point}")
        .let("begin", R"(N [ad_mount] source[{stored}], dest[{mount_point}]
        exists {stored} | missing {mount_point}
        E [ad_mount] dest path [{mount_point}] is not existed)");
    EXPECT_RUN(ad_mount(), 0, R"({begin} | not_created create_path_apps_zeladagent
        N [CADAgentd] ad_mounter_create {mount_point} failed.)");
    EXPECT_RUN(ad_mount(), 1, R"({begin} | created create_path_apps_zeladagent
        ran ad-mounter --mount {stored} {mount_point} | N [ad_mount] Mount done !!\n)");
    device.remove("{stored}");
    EXPECT_RUN(ad_mount(), 0, R"(N [ad_mount] source[{stored}], dest[{mount_point}]
        missing {stored} | E [ad_mount] source img [{stored}] is not existed)");
}

TEST_F(MounterCommands, ReplaceNeedsTheDownloadAndMakesTheStore) {
    device.let("entry", "N [CADAgentd] ReplaceFile, use [{downloaded}] replace [{stored}].");
    device.let("no_store", R"({entry} | exists {downloaded} | missing {store}
        E [ad_mount] dest path [{store}] is not existed)");
    EXPECT_RUN(ad_replace_img(), 0,
               "{entry} | missing {downloaded} | E img file [{downloaded}] is not existed");
    device.put("{downloaded}").fail("--replaceimg").fail("--create");
    EXPECT_RUN(ad_replace_img(), 0, R"({entry} | exists {downloaded} | exists {store}
        failed ad-mounter --replaceimg {downloaded} {stored} | N ReplaceFile done !!\n)");
    device.remove("{store}");
    EXPECT_RUN(ad_replace_img(), 0, R"({no_store} | not_created create_path_zeladagent_img
        N [CADAgentd] ad_mounter_create {store} failed.)");
    EXPECT_RUN(ad_replace_img(), 1, R"({no_store} | created create_path_zeladagent_img
        ran ad-mounter --replaceimg {downloaded} {stored} | N ReplaceFile done !!\n)");
}

TEST_F(MounterCommands, ACopiedLibraryIsAcceptedByItsSize) {
    // No limit of length here: the line is longer than the other commands' buffers.
    const std::string source = "/opt/" + std::string(150, 's');
    const std::string target = "/opt/" + std::string(150, 't');
    const auto copy = [&] { return ad_copy_lib(source.c_str(), target.c_str()); };
    device.let("source", source).let("target", target);
    device.let("end", R"(E [ad_copy_lib] copy lib with error size !!\n)");
    device.let("from", "open {source} rb | N [ad_copy_lib] CopyLib, srcLibSize =");
    device.let("to", "ran ad-mounter --copylib {source} {target} | open {target} rb");
    device.let("sized", "{to} | N [ad_copy_lib] destLibSize =");
    EXPECT_RUN(ad_copy_lib(nullptr, "/b"), 0, "E [ad_copy_lib] input lib so path is NULL");
    EXPECT_RUN(ad_copy_lib("/a", nullptr), 0, "E [ad_copy_lib] input lib so path is NULL");
    EXPECT_RUN(copy(), 0, R"(N [ad_copy_lib] use [{source}] replace [{target}].
        missing {source} | E [ad_copy_lib] libFileName [{source}] is not existed)");
    device.put(source, "four").remove("{opt_lib}").fail("--create").fail("--copylib");
    EXPECT_RUN(copy(), 0, R"(... | missing {opt_lib} | not_created create_path_usr_lib
        E [ad_copy_lib] ad_mounter_create {opt_lib} failed.)");
    EXPECT_RUN(copy(), 0, R"(... | missing {opt_lib} | created create_path_usr_lib | {from} 4
        failed ad-mounter --copylib {source} {target} | E [ad_copy_lib] copylib failed !!\n)");
    device.unreadable = {target};
    EXPECT_RUN(copy(), 0, "... | {from} 4 | {to} | {end}");
    device.unreadable = {source, target};
    EXPECT_RUN(copy(), 0, "... | open {source} rb | {to} | {end}");
    device.unreadable = {};
    device.on_command = [] { device.put("{target}", "thr"); };
    EXPECT_RUN(copy(), 0, "... | {from} 4 | {sized} 3 | {end}");
    device.put(source).on_command = [] {};
    EXPECT_RUN(copy(), 0, "... | {from} 0 | {sized} 0 | {end}");
}

TEST_F(MounterCommands, TheInstallationStopsAtTheFirstFailure) {
    system_cmd("ad-mounter --mount");
    transcript();
    device.put("{player_res}/").fail("--remove").fail("--copy_all");
    device.let("last", "E ad_copy failed in ad_copy_player_res");
    device.let("copy", "ad-mounter --copy_all {img_res} {player_res}");
    device.let("announced", R"(ran ad-mounter --remove remove_player_res_path
        N [ad_copy_player_res] use [{img_res}] replace [{player_res}].)");
    EXPECT_RUN(ad_copy(), 0, R"(N ad_remove_lib_so_path in | agent_installed | player_installed
        exists {player_res} | failed ad-mounter --remove remove_player_res_path
        E [ad_copy_path] remove path [ad-mounter --remove remove_player_res_path] failed. | {last})");
    EXPECT_RUN(ad_copy(), 0, R"(... | {announced} | exists {img_res}
        failed {copy} | E [ad_copy_path] remove path [{copy}] failed. | {last})");
    EXPECT_RUN(ad_copy(), 1, "... | {announced} | exists {img_res} | ran {copy}");
    device.remove("{img_res}");
    EXPECT_RUN(ad_copy(), 0, R"(... | {announced} | missing {img_res}
        E [ad_copy_path] Path [{img_res}] is not existed | {last})");

    device.fail("libad-player").answers["libad-agent"] = {0, 0x200};
    EXPECT_RUN(ad_copy(), 0, R"(... | agent_installed | ... | E [ad_copy_lib] copylib failed !!\n
        E ad_copy failed in ad_copy_lib_player)");
    EXPECT_RUN(ad_copy(), 0, R"(... | failed ad-mounter --copylib {img_agent} {opt_agent}
        E [ad_copy_lib] copylib failed !!\n | E ad_copy failed in ad_copy_lib_fwk)");

    EXPECT_EQ(ad_copy_lib_fwk(), 1);
    EXPECT_EQ(ad_copy_lib_player(), 1);
    transcript();
    const std::string path = "/opt/" + std::string(250, 's');
    device.put(path + "/").let("path", path);
    EXPECT_RUN(ad_copy_path(path.c_str(), "/opt/b"), 1,
               "exists {path} | ran ad-mounter --copy_all {path} /opt/b");
}

}  // namespace
}  // namespace daemon_tests
