// Replacing the image, installing libraries and mounted_resources.

#include "support/device.h"
#include "support/tracer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t user = 1234;
const std::string mounted_resources = mounted_res + std::string("/");
const std::string resources = player_res + std::string("/");
const Words remove_resources = {"--remove", "remove_player_res_path"};
const Words create_manifest = {"--create", "create_file_apps_zeladagent_xml"};

class Install : public LaidOutTest {
protected:
    // The names of an undisturbed run's calls of these kinds, in order, without repetitions.
    std::string order_of(const Words& words, const Words& kinds) {
        std::string order;
        std::string last;
        const Result result = trace(device(), words, [&](const SystemCall& call) {
            const std::string name = name_of(call);
            if (name != last && std::count(kinds.begin(), kinds.end(), name) > 0) {
                order += name + ' ';
                last = name;
            }
            return 0;
        });
        EXPECT_TRUE(ended(result, 0));
        return order;
    }
};

class Replace : public Install {
protected:
    void prepare() override {
        Install::prepare();
        device().put_image(stored_image, "1.0");
        device().put_image(downloaded_image, "2.0");
        old_ = device().read(stored_image);
        new_ = device().read(downloaded_image);
    }
    void expect_replaced(bool moved) {
        const int fd = open(device().at(downloaded_image).c_str(), O_RDWR);
        ASSERT_TRUE(ended(device().run(replace_words), 0));
        EXPECT_TRUE(device().read(stored_image) == new_);
        EXPECT_EQ(device().owner(stored_image), "0:0 644");
        const std::string stored = device().at(stored_image);
        EXPECT_EQ(fs::hard_link_count(stored), 1U);
        EXPECT_EQ(fs::equivalent("/proc/self/fd/" + std::to_string(fd), stored), moved);
        close(fd);
        EXPECT_FALSE(device().exists(downloaded_image));
        EXPECT_TRUE(device().is_clean());
    }
    std::string old_;
    std::string new_;
};

TEST_F(Replace, RootsOwnFileIsMovedNotCopied) { expect_replaced(true); }

TEST_F(Replace, FileThatOthersCanWriteIsCopied) {
    device().set_mode(downloaded_image, 0666);
    expect_replaced(false);
}

TEST_F(Replace, UsersFileIsCopied) {
    device().give(downloaded_image, user, user);
    expect_replaced(false);
}

TEST_F(Replace, FileOnAnotherFileSystemIsCopied) {
    ASSERT_EQ(mount("data", device().at(agent_data).c_str(), "tmpfs", 0, "mode=0755"), 0);
    device().put_image(downloaded_image, "2.0");
    expect_replaced(false);
}

TEST_F(Replace, FileInAUsersDirectoryIsCopied) {
    device().give(agent_data, user, user);
    expect_replaced(false);
}

TEST_F(Replace, RefusalsLeaveBothFiles) {
    const std::string path = device().at(downloaded_image);
    const std::string secret = device().at("/opt/secret");
    const std::pair<std::string, int> cases[] = {
        {"true", 66},
        {"mkdir " + path, 65},
        {"mkfifo " + path, 65},
        {"cp " + device().at(stored_image) + ' ' + secret + "; chown 1234 " + secret + "; ln " +
             secret + ' ' + path,
         77},
    };
    for (const auto& [make, status] : cases) {
        device().remove(downloaded_image);
        shell(make);
        const Snapshot before = device().snapshot("/opt");
        EXPECT_TRUE(ended(device().run(replace_words), status)) << make;
        EXPECT_EQ(device().snapshot("/opt"), before) << make;
    }
}

TEST_F(Replace, DownloadShrinkingWhileItIsCopiedIsNoticed) {
    device().give(downloaded_image, user, user);
    const Result result = trace(device(), replace_words, [&](const SystemCall& call) {
        if (call.number == SYS_read || call.number == SYS_sendfile) {
            fs::resize_file(device().at(downloaded_image), 4096);
        }
        return 0;
    });
    EXPECT_TRUE(ended(result, 74));
    EXPECT_TRUE(device().read(stored_image) == old_);
    EXPECT_TRUE(device().is_clean());
}

TEST_F(Install, NoRoomIsNoticedBeforeAnythingIsWritten) {
    device().put_tree(mount_point, "1.0");
    ASSERT_EQ(mount("small", device().at(usr_lib).c_str(), "tmpfs", 0, "size=20k"), 0);
    device().write(agent_library, "the old library");
    bool wrote = false;
    const Result result = trace(device(), library_words, [&](const SystemCall& call) {
        wrote =
            wrote || call.number == SYS_sendfile || (call.number == SYS_write && is_mutating(call));
        return 0;
    });
    EXPECT_TRUE(ended(result, 74));
    EXPECT_FALSE(wrote);
    EXPECT_EQ(device().read(agent_library), "the old library");
    EXPECT_TRUE(device().is_clean());
}

TEST_F(Install, LibraryIsARootsFileAndTemporariesGo) {
    device().put_tree(mount_point, "1.0");
    device().write(std::string(usr_lib) + "/.libad-agent-fwk.so.ad-mounter", "half");
    device().write(std::string(usr_lib) + "/.libad-player-fwk.so.ad-mounter/x", "a directory");
    for (const std::string name : {"/libad-agent-fwk.so", "/libad-player-fwk.so"}) {
        EXPECT_TRUE(ended(device().run({"--copylib", mount_point + name, usr_lib + name}), 0));
        EXPECT_TRUE(device().read(usr_lib + name) == device().read(mount_point + name));
        EXPECT_EQ(device().owner(usr_lib + name), "0:0 644");
    }
    EXPECT_TRUE(device().is_clean());
    device().remove(mounted_library);
    EXPECT_TRUE(ended(device().run(library_words), 66));
    device().make_directory(mounted_library);
    EXPECT_TRUE(ended(device().run(library_words), 65));
}

// Mapped as by a process that has it loaded.
TEST_F(Install, LoadedLibraryIsNeverWrittenInto) {
#ifdef __SANITIZE_ADDRESS__
    constexpr int replacements = 50;
#else
    constexpr int replacements = 1000;
#endif
    device().put_tree(mount_point, "1.0");
    ASSERT_TRUE(ended(device().run(library_words), 0));
    const std::string old = device().read(agent_library);
    const int fd = open(device().at(agent_library).c_str(), O_RDONLY);
    void* loaded = mmap(nullptr, old.size(), PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    ASSERT_NE(loaded, MAP_FAILED);
    device().write(mounted_library, std::string(old.size(), '\xcc'));
    for (int i = 0; i < replacements; ++i) {
        ASSERT_TRUE(ended(device().run(library_words), 0)) << i;
    }
    EXPECT_EQ(memcmp(loaded, old.data(), old.size()), 0);
    EXPECT_NE(device().read(agent_library), old);
    munmap(loaded, old.size());
    close(fd);
}

TEST_F(Install, WhatIsWrittenLasts) {
    device().put_tree(mount_point, "1.0");
    device().write(mounted_library, std::string(3'000'000, 'l'));
    const Words kinds = {"write",  "sendfile", "sync_file_range", "fsync",
                         "syncfs", "renameat", "renameat2",       "linkat"};
    EXPECT_EQ(order_of(library_words, kinds),
              "sendfile sync_file_range sendfile sync_file_range sendfile sync_file_range "
              "fsync renameat fsync ");
    const Words for_a_tree = {"syncfs", "fsync", "renameat", "renameat2"};
    EXPECT_EQ(order_of(tree_words, for_a_tree), "syncfs renameat2 renameat fsync ");
    EXPECT_EQ(order_of(tree_words, for_a_tree), "syncfs renameat2 fsync ");
    device().put_image(downloaded_image, "1.0");
    EXPECT_EQ(order_of(replace_words, {"linkat", "fsync", "renameat", "unlinkat"}),
              "unlinkat linkat fsync renameat fsync unlinkat ");
}

class Tree : public Install {
protected:
    void prepare() override {
        Install::prepare();
        device().put_tree(mount_point, "1.0");
        device().write(resources + "old/page", "the old page");
    }

    // Modes, contents and links as in the source, all of it root's.
    void expect_copied() {
        ASSERT_TRUE(ended(device().run(tree_words), 0));
        shell("chown -hR 0:0 " + device().at(mounted_res));
        EXPECT_EQ(device().snapshot(player_res), device().snapshot(mounted_res));
        EXPECT_TRUE(device().is_clean());
    }
};

TEST_F(Tree, IsTheSourcesButRoots) {
    device().write(mounted_resources + "large", std::string(5'000'001, 'L'));
    shell("cd " + device().at(mounted_resources) + " && touch shared && mkdir sticky wide" +
          " && chmod 666 shared && chmod 1777 sticky && chmod 775 ." +
          " && seq 3000 | split -l 1 -a 60 - wide/" +
          " && mkdir -p deep$(printf '/d%.0s' $(seq 50)) && chown -hR 1234:1234 .");
    expect_copied();
}

TEST_F(Tree, RefusesWhatDoesNotBelongIntoAnImage) {
    const std::string path = device().at(mounted_resources + "a/b/");
    const char* const cases[] = {"touch bad; chmod 4755 bad",
                                 "touch bad; chmod 2755 bad",
                                 "mknod bad c 1 3",
                                 "mknod bad b 7 0",
                                 "mkfifo bad",
                                 "ln -s c/../../../.. bad",
                                 "mkdir -p bad$(printf '/d%.0s' $(seq 80))"};
    const Snapshot before = device().snapshot(player_res);
    for (const std::string make : cases) {
        SCOPED_TRACE(make);
        shell("cd " + path + "; " + make);
        const Result result = device().run(tree_words);
        EXPECT_TRUE(ended(result, 65));
        EXPECT_NE(result.err.find("bad"), std::string::npos) << "names the path: " << result.err;
        EXPECT_EQ(device().snapshot(player_res), before);
        EXPECT_TRUE(device().is_clean());
        fs::remove_all(path + "bad");
    }
    expect_copied();
}

TEST_F(Tree, WithoutExchangeAndOnAnOverlay) {
    const auto no_exchange = [](const SystemCall& call) {
        return call.number == SYS_renameat2 ? EINVAL : 0;
    };
    EXPECT_TRUE(ended(trace(device(), tree_words, no_exchange), 0));
    expect_copied();
    // The old tree in the lower layer: an overlay does not rename it.
    const std::string top = device().at("/usr/bin");
    device().write("/stage/lower/zels/zelADAgent/adplayer/res/old/page", "the old page");
    shell("cd " + device().at("/stage") + " && mkdir upper layer && mount -t overlay overlay -o " +
          "lowerdir=lower,upperdir=upper,workdir=layer " + top);
    EXPECT_TRUE(device().exists(resources + "old/page"));
    expect_copied();
    EXPECT_TRUE(ended(device().run(remove_resources), 0));
    EXPECT_FALSE(device().exists(player_res));
    expect_copied();
}

class Remove : public LaidOutTest {};

TEST_F(Remove, TakesWhatItsNameStandsForAndNothingElse) {
    const char* more = "/opt/usr/lib/libother.so";
    const Words everything = {agent_library,  player_library, more,
                              cache_manifest, stored_image,   resources + "page"};
    const std::pair<const char*, Words> cases[] = {
        {"remove_usr_lib_file", {agent_library, player_library}},
        {"remove_usr_lib_path", {agent_library, player_library, more, usr_lib}},
        {"remove_zel_adagent_img_file", {stored_image}},
        {"remove_player_res_path", {resources + "page", player_res}},
    };
    for (const auto& [name, gone] : cases) {
        for (const std::string& path : everything) {
            device().write(path, "x");
        }
        for (int again = 0; again < 2; ++again) {
            EXPECT_TRUE(ended(device().run({"--remove", name}), 0)) << name;
        }
        for (const std::string& path : everything) {
            const bool expected = std::find(gone.begin(), gone.end(), path) == gone.end();
            EXPECT_EQ(device().exists(path), expected) << name << ' ' << path;
        }
        EXPECT_FALSE(device().exists(gone.back())) << name;
    }
    device().remove("/opt/usr");
    EXPECT_TRUE(ended(device().run({"--remove", "remove_usr_lib_path"}), 0));
}

TEST_F(Remove, DoesNotFollowLinksInWideAndDeepTrees) {
    device().write("/home/kept/file", "kept");
    device().make_directory(player_res);
    shell("cd " + device().at(player_res) + " && ln -s /home/kept directory" +
          " && ln -s /home/kept/file file && seq 3000 | split -l 1 -a 100 - wide" +
          " && mkdir -p deep$(printf '/d%.0s' $(seq 60))");
    EXPECT_TRUE(ended(device().run(remove_resources), 0));
    EXPECT_FALSE(device().exists(player_res));
    EXPECT_EQ(device().read("/home/kept/file"), "kept");
}

TEST_F(Remove, DoesNotCrossAMountPoint) {
    device().write("/home/kept/file", "kept");
    const std::string point = device().at(resources + "a/mounted");
    // Without the list of mounts it is noticed only in the tree, which has moved by then.
    const std::string moved =
        device().at("/usr/bin/zels/zelADAgent/adplayer/.res.ad-mounter-old/a/mounted");
    const auto hide_list = [](const SystemCall& call) {
        return call.number == SYS_openat && call.arguments[2] == O_CLOEXEC ? ENOENT : 0;
    };
    for (const bool list_readable : {true, false}) {
        for (const std::string& what :
             {std::string("-t tmpfs other"), "--bind " + device().at("/home/kept")}) {
            device().make_directory(resources + "a/mounted");
            shell("mount " + what + ' ' + point);
            device().write(resources + "a/mounted/new", "kept");
            EXPECT_TRUE(ended(list_readable ? device().run(remove_resources)
                                            : trace(device(), remove_resources, hide_list),
                              75));
            const std::string place = list_readable ? point : moved;
            EXPECT_TRUE(fs::exists(place + "/new"));
            EXPECT_EQ(device().read("/home/kept/file"), "kept");
            shell("umount " + place);
            EXPECT_TRUE(ended(device().run(remove_resources), 0));
            EXPECT_FALSE(device().exists(player_res));
            EXPECT_TRUE(device().is_clean());
        }
    }
}

TEST_F(Remove, CreationKeepsWhatIsThere) {
    device().write(cache_manifest, "<Cache/>");
    device().give(cache_manifest, 77, 88);
    device().give(agent_data, 66, 99);
    const Snapshot before = device().snapshot("/opt");
    for (const char* name : creations) {
        EXPECT_TRUE(ended(device().run({"--create", name}), 0)) << name;
    }
    EXPECT_EQ(device().snapshot("/opt"), before);
    device().remove(cache_manifest);
    const auto write_at_the_last_moment = [&](const SystemCall& call) {
        if (call.number == SYS_renameat2) {
            device().write(cache_manifest, "<Cache/>");
        }
        return 0;
    };
    EXPECT_TRUE(ended(trace(device(), create_manifest, write_at_the_last_moment), 0));
    EXPECT_EQ(device().read(cache_manifest), "<Cache/>");
    EXPECT_TRUE(device().is_clean());
}

TEST_F(Remove, SaysWhatIsInTheWay) {
    device().make_directory(std::string(agent_library) + "/x");
    EXPECT_TRUE(ended(device().run({"--remove", "remove_usr_lib_file"}), 73));
    device().write(player_res, "a file");
    EXPECT_TRUE(ended(device().run(remove_resources), 73));
    EXPECT_EQ(device().read(player_res), "a file");
    device().make_directory(cache_manifest);
    EXPECT_TRUE(ended(device().run(create_manifest), 73));
    device().remove(usr_lib);
    device().write(usr_lib, "a file");
    EXPECT_TRUE(ended(device().run({"--create", "create_path_usr_lib"}), 73));
}

}  // namespace
}  // namespace mounter_test
