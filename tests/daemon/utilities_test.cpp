#include "ADDigest.h"
#include "ADUtils.h"
#include "recorder.h"

#include <cerrno>
#include <filesystem>

namespace daemon_tests {
namespace {

class MounterCommands : public DaemonTest {
protected:
    MounterCommands() { device.put("{stored}").put("{mount_point}/"); }
};

TEST_F(MounterCommands, AStatusCountsOnlyAsANormalExitWithZero) {
    device.let("@", "ADUtils.system_cmd").let("begin", "command tool a b");
    EXPECT_RUN(system_cmd("tool a b"), 1, "ran tool a b");
    const std::pair<int, std::string> rows[] = {
        {0xff00,
         "N system return value = [0xff00]"
         "| E run sub process failed, exit status code: 255."},
        {0x8b, "N system return value = [0x8b] | E exit value = [0]"},
        {0x40, "N system return value = [0x40] | E exit value = [0]"},
        {-1, "E system error, failed to create sub process tool a b."},
    };
    for (const auto& [status, steps] : rows) {
        device.answers["tool"] = {status};
        EXPECT_RUN(system_cmd("tool a b"), 0, "{begin} |" + steps);
    }
    EXPECT_RUN(system_cmd(nullptr), 0,
               "N system command:[(null)] | E Input system command is NULL");
}

TEST_F(MounterCommands, ADanglingLinkDoesNotExist) {
    std::filesystem::create_symlink("nowhere", device.host_path("/opt/dangling"));
    EXPECT_RUN(check_existed("/opt/dangling"), 0, "missing /opt/dangling");
    EXPECT_RUN(check_existed(nullptr), 0, "@ADUtils.check_existed | N [check_existed]:[(null)]");
}

TEST_F(MounterCommands, NamesAreHandedToTheToolInAtMost254Characters) {
    const std::string long_name(300, 'x');
    for (const auto& [run, name, verb] :
         {std::tuple(&ad_mounter_create, "ad_mounter_create", "--create"),
          std::tuple(&ad_remove_lib_so_path, "ad_remove_lib_so_path", "--remove")}) {
        device.let("@", std::string("ADUtils.") + name).let("f", name).let("verb", verb);
        device.fail("a_name");
        EXPECT_RUN(run("a_name"), 0, "not_done {f} {verb} a_name");
        EXPECT_RUN(run(nullptr), 0, "N {f} in | E {f} input scommand is NULL");
        device.let("cut", ("ad-mounter " + std::string(verb) + " " + long_name).substr(0, 254));
        EXPECT_RUN(run(long_name.c_str()), 1, "... | N {f}, syscmd:{cut} | ran {cut} | ...");
    }
}

TEST_F(MounterCommands, AnImageIsMountedAndUnmounted) {
    device.let("@", "ADUtils.ad_mount");
    device.fail("--create");
    device.let("entry", "N [ad_mount] source[{stored}], dest[{mount_point}]");
    device.let("begin", R"({entry} | exists {stored} | missing {mount_point}
        E [ad_mount] dest path [{mount_point}] is not existed)");
    device.remove("{mount_point}");
    EXPECT_RUN(ad_mount(), 0, R"({begin} | not_created create_path_apps_zeladagent
        N [CADAgentd] ad_mounter_create {mount_point} failed.)");
    EXPECT_RUN(ad_mount(), 1, R"({begin} | created create_path_apps_zeladagent
        ran ad-mounter --mount {stored} {mount_point} | N [ad_mount] Mount done !!\n)");
    device.remove("{stored}");
    EXPECT_RUN(ad_mount(), 0,
               "{entry} | missing {stored} | E [ad_mount] source img [{stored}] is not existed");
}

TEST_F(MounterCommands, ReplaceNeedsTheDownloadAndMakesTheStore) {
    device.let("@", "ADUtils.ad_replace_img");
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
    device.put(source, "four").let("source", source).let("target", target);
    device.let("@", "ADUtils.ad_copy_lib");
    device.let("from", "open {source} rb | N [ad_copy_lib] CopyLib, srcLibSize =")
        .let("to", "open {target} rb | N [ad_copy_lib] destLibSize =")
        .let("ran", "ran ad-mounter --copylib {source} {target}");
    using Row = std::tuple<std::function<void()>, std::set<std::string>, std::string>;
    for (const auto& [on_command, unreadable, steps] :
         {Row{nullptr, {source}, "open {source} rb | {ran} | {to} 4"},
          Row{nullptr, {source, target}, "open {source} rb | {ran} | open {target} rb"},
          Row{[] { device.put("{target}", "thr"); }, {}, "{from} 4 | {ran} | {to} 3"},
          Row{[] { device.put("{source}").put("{target}"); }, {}, "{from} 4 | {ran} | {to} 0"},
          Row{nullptr, {}, "{from} 0 | {ran} | {to} 0"}}) {
        device.on_command = on_command;
        device.unreadable = unreadable;
        EXPECT_RUN(ad_copy_lib(source.c_str(), target.c_str()), 0,
                   "N [ad_copy_lib] use [{source}] replace [{target}]. | exists {source} |"
                   "exists {opt_lib} |" +
                       steps + R"(| E [ad_copy_lib] copy lib with error size !!\n)");
    }

    const auto copy = [] { return ad_copy_lib("/opt/a", "/opt/usr/lib/b"); };
    device.on_command = nullptr;
    EXPECT_RUN(ad_copy_lib(nullptr, "/b"), 0, "E [ad_copy_lib] input lib so path is NULL");
    EXPECT_RUN(ad_copy_lib("/a", nullptr), 0, "E [ad_copy_lib] input lib so path is NULL");
    EXPECT_RUN(copy(), 0, R"(N [ad_copy_lib] use [/opt/a] replace [/opt/usr/lib/b].
        missing /opt/a | E [ad_copy_lib] libFileName [/opt/a] is not existed)");
    device.put("/opt/a", "four").remove("{opt_lib}").fail("--create").fail("--copylib");
    EXPECT_RUN(copy(), 0, R"(... | missing {opt_lib} | not_created create_path_usr_lib
        E [ad_copy_lib] ad_mounter_create {opt_lib} failed.)");
    EXPECT_RUN(copy(), 0, R"(... | missing {opt_lib} | created create_path_usr_lib
        open /opt/a rb | N [ad_copy_lib] CopyLib, srcLibSize = 4
        failed ad-mounter --copylib /opt/a /opt/usr/lib/b | E [ad_copy_lib] copylib failed !!\n)");
}

TEST_F(MounterCommands, TheInstallationStopsAtTheFirstFailure) {
    system_cmd("ad-mounter --mount");
    transcript();
    device.put("{player_res}/").fail("--remove").fail("--copy_all");
    device.let("@", "ADUtils.ad_copy").let("last", "@ADUtils.ad_copy | E ad_copy failed in");
    device.let("copy", "ad-mounter --copy_all {img_res} {player_res}");
    device.let("announced", R"(ran ad-mounter --remove remove_player_res_path
        @ADUtils.ad_copy_player_res
        N [ad_copy_player_res] use [{img_res}] replace [{player_res}]. | @ADUtils.ad_copy_path)");
    EXPECT_RUN(ad_copy(), 0, R"(N ad_remove_lib_so_path in | agent_installed | player_installed
        exists {player_res} | failed ad-mounter --remove remove_player_res_path
        @ADUtils.ad_copy_player_res
        E [ad_copy_path] remove path [ad-mounter --remove remove_player_res_path] failed.
        {last} ad_copy_player_res)");
    EXPECT_RUN(ad_copy(), 0, R"(... | {announced} | exists {img_res} | failed {copy}
        E [ad_copy_path] remove path [{copy}] failed. | {last} ad_copy_player_res)");
    EXPECT_RUN(ad_copy(), 1, "... | {announced} | exists {img_res} | ran {copy}");
    device.remove("{img_res}");
    EXPECT_RUN(ad_copy(), 0, R"(... | {announced} | missing {img_res}
        E [ad_copy_path] Path [{img_res}] is not existed | {last} ad_copy_player_res)");

    device.let("failed", R"(@ADUtils.ad_copy_lib | E [ad_copy_lib] copylib failed !!\n | {last})");
    device.fail("libad-player").answers["libad-agent"] = {0, 0x200};
    EXPECT_RUN(ad_copy(), 0, "... | agent_installed | ... | {failed} ad_copy_lib_player");
    EXPECT_RUN(ad_copy(), 0, R"(... | failed ad-mounter --copylib {img_agent} {opt_agent}
        {failed} ad_copy_lib_fwk)");

    const std::string path = "/opt/" + std::string(250, 's');
    device.put(path + "/").let("path", path);
    EXPECT_RUN(ad_copy_path(path.c_str(), "/opt/b"), 1,
               "exists {path} | ran ad-mounter --copy_all {path} /opt/b");
}

class Digest : public DaemonTest {};

TEST_F(Digest, MatchesThePublishedVectors) {
    const std::string file = device.put("/file", "abc").host_path("/file");
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(ad_md5_file(file.c_str()), "900150983cd24fb0d6963f7d28e17f72");
    // Longer than any piece that is read at once.
    device.put("/file", std::string(1000000, 'a'));
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(ad_sha256_file("/nowhere"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ad_md5_file(device.root.c_str()), "");
    EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace daemon_tests
