// What removal takes, what it never touches, and what creation keeps.

#include "support/device.h"
#include "support/tracer.h"

#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

const Words remove_resources = {"--remove", "remove_player_res_path"};

class Remove : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().make_layout();
        }
    }
};

TEST_F(Remove, TakesWhatItsNameStandsForAndNothingElse) {
    const std::string more = std::string(usr_lib) + "/libother.so";
    const Words everything = {agent_library,  player_library, more,
                              cache_manifest, stored_image,   std::string(player_res) + "/page"};
    struct Case {
        const char* name;
        Words gone;
    };
    const Case cases[] = {
        {"remove_usr_lib_file", {agent_library, player_library}},
        {"remove_usr_lib_path", {agent_library, player_library, more, usr_lib}},
        {"remove_zel_adagent_img_file", {stored_image}},
        {"remove_player_res_path", {std::string(player_res) + "/page", player_res}},
    };
    for (const Case& one : cases) {
        for (const std::string& path : everything) {
            device().write(path, "x");
        }
        for (int again = 0; again < 2; ++again) {
            const Result result = device().run({"--remove", one.name});
            EXPECT_EQ(result.status, 0) << one.name << ": " << result.err;
        }
        for (const std::string& path : everything) {
            const bool gone = std::find(one.gone.begin(), one.gone.end(), path) != one.gone.end();
            EXPECT_NE(device().exists(path), gone) << one.name << ' ' << path;
        }
        EXPECT_FALSE(device().exists(one.gone.back())) << one.name;
    }
    device().remove("/opt/usr");
    EXPECT_EQ(device().run({"--remove", "remove_usr_lib_path"}).status, 0);
}

TEST_F(Remove, DoesNotFollowLinksInTheTree) {
    device().write("/home/kept/file", "kept");
    device().write(std::string(player_res) + "/page", "x");
    fs::create_symlink("/home/kept", device().at(std::string(player_res) + "/directory"));
    fs::create_symlink("/home/kept/file", device().at(std::string(player_res) + "/file"));
    EXPECT_EQ(device().run(remove_resources).status, 0);
    EXPECT_FALSE(device().exists(player_res));
    EXPECT_EQ(device().read("/home/kept/file"), "kept");
}

TEST_F(Remove, DoesNotCrossAMountPoint) {
    device().write("/home/kept/file", "kept");
    const std::string inside = std::string(player_res) + "/a/mounted";
    for (const bool same_file_system : {true, false}) {
        for (const bool list_readable : {true, false}) {
            if (!list_readable && !missing_for_tracing().empty()) {
                continue;
            }
            device().make_directory(inside);
            const std::string point = device().at(inside);
            ASSERT_EQ(same_file_system ? mount(device().at("/home/kept").c_str(), point.c_str(),
                                               nullptr, MS_BIND, nullptr)
                                       : mount("other", point.c_str(), "tmpfs", 0, nullptr),
                      0);
            const std::string file = same_file_system ? inside + "/file" : inside + "/new";
            device().write(file, "kept");
            // Without the list of mounts it is noticed only in the tree.
            const auto hide_list = [](const SystemCall& call) -> Decision {
                constexpr uint64_t read_only = 02000000;
                return call.number == SYS_openat && call.arguments[2] == read_only
                           ? Decision{Decision::fail, ENOENT}
                           : Decision{};
            };
            const Result result = list_readable ? device().run(remove_resources)
                                                : trace(device(), remove_resources, hide_list);
            EXPECT_EQ(result.status, 75) << result.err;
            EXPECT_TRUE(is_one_line(result));
            if (list_readable) {
                EXPECT_EQ(device().read(file), "kept");
            }
            EXPECT_EQ(device().read("/home/kept/file"), "kept");
            // Wherever it is by now.
            const std::string moved =
                device().at("/usr/bin/zels/zelADAgent/adplayer/.res.ad-mounter-old/a/mounted");
            umount2(list_readable ? point.c_str() : moved.c_str(), MNT_DETACH);
            EXPECT_EQ(device().run(remove_resources).status, 0);
            EXPECT_FALSE(device().exists(player_res));
            EXPECT_EQ(device().leftovers(), Words());
        }
    }
}

TEST_F(Remove, SaysWhatIsInTheWay) {
    device().make_directory(std::string(agent_library) + "/x");
    EXPECT_EQ(device().run({"--remove", "remove_usr_lib_file"}).status, 73);
    device().write(player_res, "a file");
    EXPECT_EQ(device().run(remove_resources).status, 73);
    EXPECT_EQ(device().read(player_res), "a file");
}

TEST_F(Remove, WideAndDeepTreesGo) {
    for (int i = 0; i < 3000; ++i) {
        device().write(std::string(player_res) + "/" + std::string(100, 'n') + std::to_string(i),
                       "");
    }
    std::string deep = player_res;
    for (int i = 0; i < 60; ++i) {
        deep += "/d";
        device().write(deep + "/file", "x");
    }
    EXPECT_EQ(device().run(remove_resources).status, 0);
    EXPECT_FALSE(device().exists(player_res));
}

TEST_F(Remove, CreationKeepsWhatIsThere) {
    device().write(cache_manifest, "<Cache/>");
    device().give(cache_manifest, 77, 88);
    device().give(agent_data, 66, 99);
    const Snapshot before = snapshot(device().at("/opt"));
    for (const char* name : {"create_path_usr_lib", "create_path_apps_adagent",
                             "create_path_apps_zeladagent", "create_file_apps_zeladagent_xml",
                             "create_path_zeladagent", "create_path_zeladagent_img"}) {
        const Result result = device().run({"--create", name});
        EXPECT_EQ(result.status, 0) << name << ": " << result.err;
    }
    EXPECT_EQ(snapshot(device().at("/opt")), before);
    device().remove(cache_manifest);
    if (missing_for_tracing().empty()) {
        // It appears at the last moment.
        const Words words = {"--create", "create_file_apps_zeladagent_xml"};
        const Result result = trace(device(), words, [&](const SystemCall& call) -> Decision {
            if (call.number == SYS_renameat2) {
                device().write(cache_manifest, "<Cache/>");
            }
            return {};
        });
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(device().read(cache_manifest), "<Cache/>");
        EXPECT_EQ(device().leftovers(), Words());
    }
    device().remove(cache_manifest);
    device().make_directory(cache_manifest);
    EXPECT_EQ(device().run({"--create", "create_file_apps_zeladagent_xml"}).status, 73);
    device().remove(usr_lib);
    device().write(usr_lib, "a file");
    EXPECT_EQ(device().run({"--create", "create_path_usr_lib"}).status, 73);
}

}  // namespace
}  // namespace mounter_test
