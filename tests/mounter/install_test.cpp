// Replacing the image, installing libraries and resources.

#include "support/device.h"
#include "support/tracer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t user = 1234;
const std::string mounted_resources = std::string(mount_point) + "/adplayer/res";

class Install : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().make_layout();
        }
    }

    struct stat status(const std::string& inside) {
        struct stat status = {};
        EXPECT_EQ(lstat(device().at(inside).c_str(), &status), 0) << inside;
        return status;
    }

    void expect_roots(const std::string& inside, mode_t mode) {
        const struct stat seen = status(inside);
        EXPECT_EQ(seen.st_uid, 0U);
        EXPECT_EQ(seen.st_gid, 0U);
        EXPECT_EQ(seen.st_mode & 07777, mode);
        EXPECT_EQ(seen.st_nlink, 1U);
    }

    // The names of an undisturbed run's calls of these kinds, in order.
    Words order_of(const Words& words, const Words& kinds) {
        Words order;
        const Result result = trace(device(), words, [&](const SystemCall& call) -> Decision {
            const char* name =
                call.number == SYS_sync_file_range ? "sync_file_range" : fault_name(call);
            if (name != nullptr && std::find(kinds.begin(), kinds.end(), name) != kinds.end()) {
                order.emplace_back(name);
            }
            return {};
        });
        EXPECT_EQ(result.status, 0) << result.err;
        order.erase(std::unique(order.begin(), order.end()), order.end());
        return order;
    }
};

class Replace : public Install {
protected:
    void SetUp() override {
        Install::SetUp();
        if (!IsSkipped()) {
            device().put_image(stored_image, "1.0");
            device().put_image(downloaded_image, "2.0");
            old_ = device().read(stored_image);
            new_ = device().read(downloaded_image);
        }
    }
    void expect_replaced() {
        const Result result = device().run(replace_words);
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(device().read(stored_image) == new_);
        expect_roots(stored_image, 0644);
        EXPECT_FALSE(device().exists(downloaded_image));
        EXPECT_EQ(device().leftovers(), Words());
    }
    std::string old_;
    std::string new_;
};

TEST_F(Replace, RootsOwnFileIsMovedNotCopied) {
    const ino_t inode = status(downloaded_image).st_ino;
    expect_replaced();
    EXPECT_EQ(status(stored_image).st_ino, inode);
}

TEST_F(Replace, AnotherFileSystemIsCopied) {
    ASSERT_EQ(mount("d", device().at(agent_data).c_str(), "tmpfs", 0, "mode=0755"), 0);
    device().put_image(downloaded_image, "2.0");
    expect_replaced();
}

TEST_F(Replace, UsersFileIsOutOfItsReachAfterwards) {
    device().give(agent_data, user, user);
    device().give(downloaded_image, user, user);
    const int writer = open(device().at(downloaded_image).c_str(), O_RDWR);
    expect_replaced();
    EXPECT_EQ(pwrite(writer, "overwritten", 11, 0), 11);
    EXPECT_TRUE(device().read(stored_image) == new_);
    close(writer);
}

TEST_F(Replace, FileThatOthersCanWriteIsCopied) {
    ASSERT_EQ(chmod(device().at(downloaded_image).c_str(), 0666), 0);
    const ino_t inode = status(downloaded_image).st_ino;
    expect_replaced();
    EXPECT_NE(status(stored_image).st_ino, inode);
}

TEST_F(Replace, RefusalsLeaveBothFiles) {
    const std::string path = device().at(downloaded_image);
    device().put_image("/opt/secret", "3.0");
    struct Case {
        const char* what;
        std::function<void()> make;
        int status;
    };
    const Case cases[] = {
        {"missing", [] {}, 66},
        {"no image", [&] { device().write(downloaded_image, std::string(9999, 'x')); }, 65},
        {"cut short", [&] { device().write(downloaded_image, new_.substr(0, 5000)); }, 65},
        {"a link", [&] { fs::create_symlink("/opt/secret", path); }, 77},
        {"a pipe", [&] { mkfifo(path.c_str(), 0666); }, 65},
        {"a directory", [&] { device().make_directory(downloaded_image); }, 65},
        {"another name of a user's file",
         [&] {
             device().give("/opt/secret", user, user);
             fs::create_hard_link(device().at("/opt/secret"), path);
         },
         77},
    };
    for (const Case& one : cases) {
        device().remove(downloaded_image);
        one.make();
        const Snapshot before = snapshot(device().at("/opt"));
        const Result result = device().run(replace_words);
        EXPECT_EQ(result.status, one.status) << one.what << ": " << result.err;
        EXPECT_TRUE(is_one_line(result)) << one.what;
        EXPECT_EQ(snapshot(device().at("/opt")), before) << one.what;
    }
}

TEST_F(Replace, DownloadGrowingWhileItIsCopiedDoesNotMatter) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    device().give(downloaded_image, user, user);
    bool cut = false;
    const Result result = trace(device(), replace_words, [&](const SystemCall& call) -> Decision {
        if (!cut && (call.number == SYS_read || call.number == SYS_sendfile)) {
            cut = true;
            fs::resize_file(device().at(downloaded_image), 4096);
        }
        return {};
    });
    EXPECT_EQ(result.status, 74) << result.err;
    EXPECT_TRUE(device().read(stored_image) == old_);
    EXPECT_EQ(device().leftovers(), Words());
}

TEST_F(Install, NoRoomIsNoticedBeforeAnythingIsWritten) {
    device().put_tree(mount_point, "1.0");
    ASSERT_EQ(mount("small", device().at(usr_lib).c_str(), "tmpfs", 0, "size=20k"), 0);
    device().write(agent_library, "the old library");
    const auto writes = [](const SystemCall& call) -> Decision {
        return is_mutating(call) && (call.number == SYS_write || call.number == SYS_sendfile)
                   ? Decision{Decision::kill, 0}
                   : Decision{};
    };
    const Result result = missing_for_tracing().empty() ? trace(device(), library_words, writes)
                                                        : device().run(library_words);
    EXPECT_EQ(result.status, 74) << result.err;
    EXPECT_EQ(device().read(agent_library), "the old library");
    EXPECT_EQ(device().leftovers(), Words());
}

TEST_F(Install, LibraryIsARootsFileAndTemporariesGo) {
    device().put_tree(mount_point, "1.0");
    device().write(std::string(usr_lib) + "/.libad-agent-fwk.so.ad-mounter", "half");
    device().write(std::string(usr_lib) + "/.libad-player-fwk.so.ad-mounter/x", "a directory");
    for (const char* name : {"/libad-agent-fwk.so", "/libad-player-fwk.so"}) {
        const Result result = device().run(
            {"--copylib", std::string(mount_point) + name, std::string(usr_lib) + name});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(device().read(std::string(usr_lib) + name) ==
                    device().read(std::string(mount_point) + name));
        expect_roots(std::string(usr_lib) + name, 0644);
    }
    EXPECT_EQ(device().leftovers(), Words());
    device().remove(std::string(mount_point) + "/libad-agent-fwk.so");
    EXPECT_EQ(device().run(library_words).status, 66);
    device().make_directory(std::string(mount_point) + "/libad-agent-fwk.so");
    EXPECT_EQ(device().run(library_words).status, 65);
}

TEST_F(Install, WhatIsWrittenLasts) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    device().put_tree(mount_point, "1.0");
    device().write(library_words[1], std::string(3'000'000, 'l'));
    const Words kinds = {"write",  "sendfile", "sync_file_range", "fsync",
                         "syncfs", "renameat", "renameat2",       "linkat"};
    EXPECT_EQ(order_of(library_words, kinds),
              (Words{"sendfile", "sync_file_range", "sendfile", "sync_file_range", "sendfile",
                     "sync_file_range", "fsync", "renameat", "fsync"}));
    EXPECT_EQ(order_of(tree_words, {"syncfs", "fsync", "renameat", "renameat2"}),
              (Words{"syncfs", "renameat2", "renameat", "fsync"}));
    EXPECT_EQ(order_of(tree_words, {"syncfs", "fsync", "renameat", "renameat2"}),
              (Words{"syncfs", "renameat2", "fsync"}));
    device().put_image(downloaded_image, "1.0");
    EXPECT_EQ(order_of(replace_words, {"linkat", "fsync", "renameat", "unlinkat"}),
              (Words{"unlinkat", "linkat", "fsync", "renameat", "fsync", "unlinkat"}));
}

// A process that has the library loaded goes on calling into it.
TEST_F(Install, LoadedLibraryIsNeverWrittenInto) {
#ifdef __SANITIZE_ADDRESS__
    constexpr int replacements = 50;
#else
    constexpr int replacements = 1000;
#endif
    const std::string source = device().at(library_words[1]);
    fs::copy_file(LOADED_LIBRARY, source);
    const auto size = fs::file_size(source);
    ASSERT_EQ(device().run(library_words).status, 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        void* library = dlopen(device().at(agent_library).c_str(), RTLD_NOW);
        auto* call = library == nullptr
                         ? nullptr
                         : reinterpret_cast<int (*)(int)>(dlsym(library, "loaded_library_call"));
        (void)!write(ready[1], "x", 1);
        for (int i = 0; call != nullptr; i = (i + 1) % 65536) {
            if (call(i) != (i ^ 0x5a5a)) {
                break;
            }
        }
        _exit(1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    // What replaces it is the same size, and no code at all.
    std::ofstream(source, std::ios::binary | std::ios::trunc) << std::string(size, '\xcc');
    int replaced = 0;
    while (replaced < replacements && device().run(library_words).status == 0) {
        ++replaced;
    }
    EXPECT_EQ(replaced, replacements);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the process with the library died";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

class Tree : public Install {
protected:
    void SetUp() override {
        Install::SetUp();
        if (!IsSkipped()) {
            device().put_tree(mount_point, "1.0");
            device().write(std::string(player_res) + "/old/page", "the old page");
        }
    }

    // Modes, contents and links as in the source, all of it root's.
    void expect_copied() {
        const Result result = device().run(tree_words);
        ASSERT_EQ(result.status, 0) << result.err;
        for (const auto& entry : fs::recursive_directory_iterator(device().at(mounted_resources))) {
            ASSERT_EQ(lchown(entry.path().c_str(), 0, 0), 0);
        }
        device().give(mounted_resources, 0, 0);
        EXPECT_EQ(snapshot(device().at(player_res)), snapshot(device().at(mounted_resources)));
        EXPECT_EQ(device().leftovers(), Words());
    }
};

TEST_F(Tree, IsTheSourcesButRoots) {
    device().write(mounted_resources + "/shared", "for all");
    chmod(device().at(mounted_resources + "/shared").c_str(), 0666);
    device().make_directory(mounted_resources + "/sticky");
    chmod(device().at(mounted_resources + "/sticky").c_str(), 01777);
    chmod(device().at(mounted_resources).c_str(), 0775);
    for (const auto& entry : fs::recursive_directory_iterator(device().at(mounted_resources))) {
        ASSERT_EQ(lchown(entry.path().c_str(), user, user), 0);
    }
    expect_copied();
}

TEST_F(Tree, ComesOutOfBothKindsOfImage) {
    for (const char* type : {"squashfs", "erofs"}) {
        device().remove(mount_point);
        device().make_directory(mount_point);
        device().put_image(stored_image, std::string("1.") + type, type);
        ASSERT_EQ(device().run(mount_words).status, 0);
        EXPECT_EQ(device().run(tree_words).status, 0);
        EXPECT_EQ(snapshot(device().at(player_res)), snapshot(device().at(mounted_resources)));
        EXPECT_EQ(device().run(library_words).status, 0);
        EXPECT_TRUE(device().read(agent_library) == device().read(library_words[1]));
        ASSERT_EQ(device().run(umount_words).status, 0);
    }
}

TEST_F(Tree, WideDeepAndLargeContents) {
    for (int i = 0; i < 3000; ++i) {
        device().write(mounted_resources + "/wide/" + std::string(40, 'n') + std::to_string(i),
                       std::to_string(i));
    }
    std::string deep = mounted_resources;
    for (int i = 0; i < 50; ++i) {
        deep += "/d";
    }
    device().write(deep + "/file", "deep");
    device().write(mounted_resources + "/large", std::string(5'000'001, 'L'));
    expect_copied();
}

TEST_F(Tree, RefusesWhatDoesNotBelongIntoAnImage) {
    const std::string place = mounted_resources + "/a/b/bad";
    const std::string path = device().at(place);
    struct Case {
        const char* what;
        std::function<void()> make;
    };
    const auto link = [&](const char* target) {
        return [&path, target] { fs::create_symlink(target, path); };
    };
    const auto file = [&](mode_t mode) {
        return [this, &place, &path, mode] {
            device().write(place, "x");
            chmod(path.c_str(), mode);
        };
    };
    const Case cases[] = {
        {"set-user-ID", file(04755)},
        {"set-group-ID", file(02755)},
        {"a character device", [&] { mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)); }},
        {"a block device", [&] { mknod(path.c_str(), S_IFBLK | 0666, makedev(7, 0)); }},
        {"a pipe", [&] { mkfifo(path.c_str(), 0666); }},
        {"an absolute link", link("/etc/passwd")},
        {"a link upwards", link("../../../secret")},
        {"a link through others", link("c/../../../..")},
        {"too deep",
         [&] {
             std::string deep = place;
             for (int i = 0; i < 80; ++i) {
                 deep += "/d";
             }
             device().make_directory(deep);
         }},
    };
    const Snapshot before = snapshot(device().at(player_res));
    for (const Case& one : cases) {
        one.make();
        const Result result = device().run(tree_words);
        EXPECT_EQ(result.status, 65) << one.what << ": " << result.err;
        EXPECT_TRUE(is_one_line(result)) << one.what;
        EXPECT_NE(result.err.find("bad"), std::string::npos) << "names the path: " << result.err;
        EXPECT_EQ(snapshot(device().at(player_res)), before) << one.what;
        EXPECT_EQ(device().leftovers(), Words()) << one.what;
        fs::remove_all(path);
    }
    expect_copied();
}

TEST_F(Tree, WithoutExchangeAndOnAnOverlay) {
    if (missing_for_tracing().empty()) {
        const Result result = trace(device(), tree_words, [](const SystemCall& call) -> Decision {
            return call.number == SYS_renameat2 ? Decision{Decision::fail, EINVAL} : Decision{};
        });
        EXPECT_EQ(result.status, 0) << result.err;
        expect_copied();
    }
    // The old tree in the lower layer: an overlay does not rename it.
    const std::string top = device().at("/usr/bin");
    for (const char* directory : {"/stage/upper", "/stage/layer"}) {
        device().make_directory(directory);
    }
    device().write("/stage/lower/zels/zelADAgent/adplayer/res/old/page", "the old page");
    const std::string options = "lowerdir=" + device().at("/stage/lower") +
                                ",upperdir=" + device().at("/stage/upper") +
                                ",workdir=" + device().at("/stage/layer");
    ASSERT_EQ(mount("overlay", top.c_str(), "overlay", 0, options.c_str()), 0);
    EXPECT_TRUE(device().exists(std::string(player_res) + "/old/page"));
    expect_copied();
    EXPECT_EQ(device().run({"--remove", "remove_player_res_path"}).status, 0);
    EXPECT_FALSE(device().exists(player_res));
    expect_copied();
}

}  // namespace
}  // namespace mounter_test
