// Mounting and unmounting the stored image.

#include "support/device.h"
#include "support/tracer.h"

#include <cerrno>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

const std::string mounted_page = std::string(mount_point) + "/adplayer/res/page.html";

class Mount : public DeviceTest, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().make_layout();
        }
    }

    void store(const std::string& version) {
        device().put_image(stored_image, version, GetParam());
    }

    void by_hand(const std::string& options) {
        shell("mount -o " + options + ' ' + device().at(stored_image) + ' ' +
              device().at(mount_point));
    }

    void expect_mounted(const std::string& version) {
        EXPECT_EQ(device().read(mounted_page), "page " + version);
        EXPECT_EQ(device().mounts().size(), 1U);
        struct statvfs status;
        ASSERT_EQ(statvfs(device().at(mount_point).c_str(), &status), 0);
        constexpr unsigned long looked_at =
            ST_RDONLY | ST_NOSUID | ST_NODEV | ST_NOEXEC | 0x2000 /* nosymfollow */;
        EXPECT_EQ(status.f_flag & looked_at,
                  static_cast<unsigned long>(ST_RDONLY | ST_NOSUID | ST_NODEV));
    }
};

TEST_P(Mount, IsReadOnlyAndLeavesNothingBehind) {
    store("1.0");
    const Result result = device().run(mount_words);
    ASSERT_EQ(result.status, 0) << result.err;
    expect_mounted("1.0");
    for (const std::string& name : device().loop_devices()) {
        const int fd = open(name.c_str(), O_RDONLY);
        loop_info64 info = {};
        ASSERT_EQ(ioctl(fd, LOOP_GET_STATUS64, &info), 0);
        close(fd);
        EXPECT_TRUE((info.lo_flags & LO_FLAGS_READ_ONLY) != 0);
        EXPECT_TRUE((info.lo_flags & LO_FLAGS_AUTOCLEAR) != 0);
    }
    EXPECT_EQ(device().run(umount_words).status, 0);
    EXPECT_EQ(device().mounts().size(), 0U);
    EXPECT_EQ(device().loop_devices(), Words());
    EXPECT_EQ(device().leftovers(), Words());
    EXPECT_EQ(device().run(umount_words).status, 0) << "nothing mounted is no error";
}

TEST_P(Mount, SameImageAgainIsSuccessWithoutStacking) {
    store("1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    const auto before = device().mounts();
    // Somebody works in it: unmounting would be noticed.
    const int used = open(device().at(mounted_page).c_str(), O_RDONLY);
    const Result result = device().run(mount_words);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(device().mounts(), before);
    close(used);
}

TEST_P(Mount, OlderImageMakesWay) {
    store("1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    store("2.0");
    const int used = open(device().at(mounted_page).c_str(), O_RDONLY);
    const Result busy = device().run(mount_words);
    EXPECT_EQ(busy.status, 75);
    EXPECT_NE(busy.err.find("busy"), std::string::npos) << busy.err;
    expect_mounted("1.0");
    close(used);
    EXPECT_EQ(device().run(mount_words).status, 0);
    expect_mounted("2.0");
    EXPECT_LE(device().loop_devices().size(), 1U);
}

TEST_P(Mount, OursWithoutTheFlagsIsMountedAnew) {
    store("1.0");
    by_hand("loop,ro");
    const Result result = device().run(mount_words);
    EXPECT_EQ(result.status, 0) << result.err;
    expect_mounted("1.0");
}

TEST_P(Mount, BrokenNewImageLeavesTheOldMounted) {
    store("1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    store("2.0");
    std::string image = without_trailer(device().read(stored_image));
    // The header and the signature are good, what the header points to is not.
    const size_t from = GetParam() == std::string("squashfs") ? 96 : 1152;
    std::fill(image.begin() + static_cast<long>(from), image.end(), '\xee');
    fs::remove(device().at(stored_image));
    device().write(stored_image, device().maker().signed_image(image, "2.0"));
    const Result result = device().run(mount_words);
    EXPECT_EQ(result.status, 65) << result.err;
    EXPECT_EQ(result.err.find("signature"), std::string::npos) << result.err;
    expect_mounted("1.0");
    EXPECT_LE(device().loop_devices().size(), 1U);
}

TEST_P(Mount, UnmountTakesAllOfOursAndOnlyOurs) {
    const std::string point = device().at(mount_point);
    const std::string elsewhere = device().at("/stage/elsewhere");
    device().make_directory("/stage/elsewhere");
    store("1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    ASSERT_EQ(mount(point.c_str(), elsewhere.c_str(), nullptr, MS_MOVE, nullptr), 0);
    ASSERT_EQ(mount("below", point.c_str(), "tmpfs", 0, nullptr), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(mount(elsewhere.c_str(), point.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    umount2(elsewhere.c_str(), 0);
    ASSERT_EQ(device().mounts().size(), 4U);
    fs::remove(device().at(stored_image));
    const Result result = device().run(umount_words);
    EXPECT_EQ(result.status, 0) << result.err;
    ASSERT_EQ(device().mounts().size(), 1U);
    EXPECT_NE(device().mounts()[0].find("tmpfs"), std::string::npos);
    EXPECT_EQ(device().loop_devices(), Words());
    EXPECT_EQ(device().run(umount_words).status, 77) << "a foreign mount";
    EXPECT_EQ(device().mounts().size(), 1U);
}

TEST_P(Mount, BusyUnmountSaysSoAndLeavesIt) {
    store("1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    const int used = open(device().at(mounted_page).c_str(), O_RDONLY);
    const Result result = device().run(umount_words);
    EXPECT_EQ(result.status, 75);
    EXPECT_NE(result.err.find("busy"), std::string::npos) << result.err;
    expect_mounted("1.0");
    close(used);
    EXPECT_EQ(device().run(umount_words).status, 0);
}

TEST_P(Mount, IsTakenBackWhenTheMountPointChangedMeanwhile) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    store("1.0");
    const Result result = trace(device(), mount_words, [&](const SystemCall& call) -> Decision {
        if (call.number == SYS_move_mount) {
            fs::rename(device().at(mount_point), device().at("/stage/away"));
            device().make_directory(mount_point);
        }
        return {};
    });
    EXPECT_EQ(result.status, 75) << result.err;
    EXPECT_EQ(device().mounts().size(), 0U);
    EXPECT_FALSE(device().exists("/stage/away/zelADAgent.xml"));
    EXPECT_EQ(device().loop_devices(), Words());
}

TEST_P(Mount, WorksOnOlderKernels) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    const std::vector<long> newer_calls[] = {
        {SYS_fsopen}, {SYS_openat2}, {SYS_symlinkat}, {SYS_close_range}, {SYS_fsopen, SYS_openat2}};
    for (const std::vector<long>& missing : newer_calls) {
        store("1.0");
        const Result result = trace(device(), mount_words, [&](const SystemCall& call) -> Decision {
            const bool gone =
                std::find(missing.begin(), missing.end(), call.number) != missing.end();
            return gone ? Decision{Decision::fail, ENOSYS} : Decision{};
        });
        EXPECT_EQ(result.status, 0) << missing[0] << ": " << result.err;
        expect_mounted("1.0");
        EXPECT_EQ(device().run(mount_words).status, 0);
        expect_mounted("1.0");
        EXPECT_EQ(device().run(umount_words).status, 0);
        EXPECT_EQ(device().mounts().size(), 0U);
    }
}

INSTANTIATE_TEST_SUITE_P(Types, Mount, testing::Values("squashfs", "erofs"),
                         [](const auto& type) { return std::string(type.param); });

class MountRefusals : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().make_layout();
        }
    }
};

TEST_F(MountRefusals, WhatIsNoSoundImageOfRoots) {
    const std::string path = device().at(stored_image);
    device().put_image("/stage/good", "1.0");
    const std::string good = device().read("/stage/good");
    const auto content = [&](const std::string& bytes) {
        return [this, bytes] { device().write(stored_image, bytes); };
    };
    struct Case {
        const char* what;
        std::function<void()> make;
        int status;
    };
    const Case cases[] = {
        {"missing", [] {}, 66},
        {"a directory", [&] { device().make_directory(stored_image); }, 65},
        {"a pipe", [&] { mkfifo(path.c_str(), 0644); }, 65},
        {"a device", [&] { mknod(path.c_str(), S_IFBLK | 0600, makedev(7, 0)); }, 65},
        {"a link", [&] { fs::create_symlink("/stage/good", path); }, 77},
        {"empty", content(""), 65},
        {"text", content(std::string(8192, 'x')), 65},
        {"cut short", content(good.substr(0, good.size() / 2)), 65},
        {"another file system",
         [&] {
             shell("truncate -s 1M " + path);
             shell("mkfs.ext4 -q -F " + path);
         },
         65},
        {"a user's",
         [&] {
             device().write(stored_image, good);
             device().give(stored_image, 1234, 0);
         },
         77},
        {"writable for all",
         [&] {
             device().write(stored_image, good);
             chmod(path.c_str(), 0666);
         },
         77},
    };
    for (const Case& one : cases) {
        device().remove(stored_image);
        one.make();
        const Result result = device().run(mount_words);
        EXPECT_EQ(result.status, one.status) << one.what << ": " << result.err;
        EXPECT_TRUE(is_one_line(result)) << one.what;
        EXPECT_EQ(device().mounts().size(), 0U) << one.what;
        EXPECT_EQ(device().loop_devices(), Words()) << one.what;
    }
}

TEST_F(MountRefusals, ForeignMountStays) {
    device().put_image(stored_image, "1.0");
    device().put_image("/stage/other.img", "2.0");
    const std::string point = device().at(mount_point);
    const std::string other = "mount -o loop,ro " + device().at("/stage/other.img") + ' ' + point;
    const std::string in_memory = "mount -t tmpfs other " + point;
    for (const std::string& line : {other, in_memory}) {
        shell(line);
        const auto before = device().mounts();
        EXPECT_EQ(device().run(mount_words).status, 77) << line;
        EXPECT_EQ(device().run(umount_words).status, 77) << line;
        EXPECT_EQ(device().mounts(), before);
        umount2(point.c_str(), 0);
    }
}

TEST_F(MountRefusals, MissingMountPoint) {
    device().put_image(stored_image, "1.0");
    device().remove(mount_point);
    EXPECT_EQ(device().run(mount_words).status, 66);
    EXPECT_EQ(device().run(umount_words).status, 0);
}

TEST_F(MountRefusals, BusyLoopDevicesAreTriedAgainButNotForEver) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    device().put_image(stored_image, "1.0");
    for (const int error : {EBUSY, EAGAIN}) {
        for (const bool for_ever : {false, true}) {
            int failures = 0;
            const auto busy = [&](const SystemCall& call) -> Decision {
                if (call.number == SYS_ioctl && call.arguments[1] == LOOP_CONFIGURE &&
                    (for_ever || failures < 5)) {
                    ++failures;
                    return {Decision::fail, error};
                }
                return {};
            };
            const Result result = trace(device(), mount_words, busy);
            EXPECT_EQ(result.status, for_ever ? 75 : 0) << result.err;
            EXPECT_GE(failures, 5);
            EXPECT_LE(failures, 100);
            EXPECT_EQ(device().run(umount_words).status, 0);
        }
    }
}

}  // namespace
}  // namespace mounter_test
