// Mounting and unmounting the stored image.

#include "support/device.h"
#include "support/tracer.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

const std::string mounted_page = mounted_res + std::string("/page.html");

class Mount : public LaidOutTest, public testing::WithParamInterface<const char*> {
protected:
    void store(const std::string& version) {
        device().put_image(stored_image, version, GetParam());
    }

    void mount_first() {
        store("1.0");
        ASSERT_TRUE(ended(device().run(mount_words), 0));
    }

    void expect_mounted(const std::string& version) {
        EXPECT_EQ(device().read(mounted_page), "page " + version);
        EXPECT_TRUE(device().is_clean(1));
        ASSERT_EQ(device().mounts().size(), 1U);
        const std::string mounted = device().mounts()[0];
        EXPECT_NE(mounted.find(" ro,nosuid,nodev,relatime "), std::string::npos) << mounted;
    }

    void expect_busy(const Words& words) {
        const Result busy = device().run(words);
        EXPECT_TRUE(ended(busy, 75));
        EXPECT_NE(busy.err.find("busy"), std::string::npos) << busy.err;
        expect_mounted("1.0");
    }
};

TEST_P(Mount, WhatIsInUseStays) {
    mount_first();
    const Words before = device().mounts();
    // Somebody works in it.
    const int used = open(device().at(mounted_page).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(ended(device().run(mount_words), 0)) << "it is the same image";
    expect_busy(umount_words);
    store("2.0");
    expect_busy(mount_words);
    EXPECT_EQ(device().mounts(), before);
    close(used);
    EXPECT_TRUE(ended(device().run(mount_words), 0));
    expect_mounted("2.0");
    for (int again = 0; again < 2; ++again) {
        EXPECT_TRUE(ended(device().run(umount_words), 0)) << "nothing mounted is no error";
        EXPECT_TRUE(device().is_clean());
    }
}

TEST_P(Mount, OursWithoutTheFlagsIsMountedAnew) {
    store("1.0");
    shell("mount -o loop,ro " + device().at(stored_image) + ' ' + device().at(mount_point));
    EXPECT_TRUE(ended(device().run(mount_words), 0));
    expect_mounted("1.0");
}

TEST_P(Mount, BrokenNewImageLeavesTheOldMounted) {
    mount_first();
    store("2.0");
    std::string image = device().read("/stage/2.0." + std::string(GetParam()) + ".unsigned");
    // The header and the signature are good, what the header points to is not.
    const size_t from = GetParam() == std::string("squashfs") ? 96 : 1152;
    std::fill(image.begin() + static_cast<long>(from), image.end(), '\xee');
    device().remove(stored_image);
    device().write(stored_image, device().maker().signed_image(image, "2.0"));
    const Result result = device().run(mount_words);
    EXPECT_TRUE(ended(result, 65));
    EXPECT_EQ(result.err.find("signature"), std::string::npos) << result.err;
    expect_mounted("1.0");
}

TEST_P(Mount, UnmountTakesAllOfOursAndOnlyOurs) {
    const std::string point = device().at(mount_point);
    const std::string elsewhere = device().at("/home ");
    mount_first();
    shell("mount --move " + point + ' ' + elsewhere + "&& mount -t tmpfs below " + point);
    for (int i = 0; i < 3; ++i) {
        shell("mount --bind " + elsewhere + point);
    }
    shell("umount " + elsewhere);
    device().remove(stored_image);
    EXPECT_TRUE(ended(device().run(umount_words), 0));
    ASSERT_EQ(device().mounts().size(), 1U);
    EXPECT_NE(device().mounts()[0].find("tmpfs"), std::string::npos);
    shell("umount " + point);
    EXPECT_TRUE(device().is_clean());
}

TEST_P(Mount, IsTakenBackWhenTheMountPointChangedMeanwhile) {
    store("1.0");
    const Result result = trace(device(), mount_words, [&](const SystemCall& call) {
        if (call.number == SYS_move_mount) {
            fs::rename(device().at(mount_point), device().at("/stage/away"));
            device().make_directory(mount_point);
        }
        return 0;
    });
    EXPECT_TRUE(ended(result, 75));
    EXPECT_FALSE(device().exists("/stage/away/zelADAgent.xml"));
    EXPECT_TRUE(device().is_clean());
}

TEST_P(Mount, WorksOnOlderKernels) {
    const std::vector<long> newer_calls[] = {
        {SYS_fsopen}, {SYS_openat2}, {SYS_symlinkat}, {SYS_close_range}, {SYS_fsopen, SYS_openat2}};
    store("1.0");
    for (const std::vector<long>& missing : newer_calls) {
        const Result result = trace(device(), mount_words, [&](const SystemCall& call) {
            return std::count(missing.begin(), missing.end(), call.number) > 0 ? ENOSYS : 0;
        });
        EXPECT_TRUE(ended(result, 0)) << missing[0];
        const Words before = device().mounts();
        EXPECT_TRUE(ended(device().run(mount_words), 0));
        EXPECT_EQ(device().mounts(), before);
        expect_mounted("1.0");
        EXPECT_TRUE(ended(device().run(umount_words), 0));
        EXPECT_TRUE(device().is_clean());
    }
}

INSTANTIATE_TEST_SUITE_P(Types, Mount, testing::Values("squashfs", "erofs"),
                         [](const auto& type) { return std::string(type.param); });

class MountRefusals : public LaidOutTest {};

TEST_F(MountRefusals, WhatIsNoSoundImageOfRoots) {
    device().put_image("/stage/good", "1.0");
    const std::pair<const char*, int> cases[] = {
        {"true", 66},
        {"mkdir $image", 65},
        {"mkfifo $image", 65},
        {"mknod $image b 7 0", 65},
        {"ln -s /stage/good $image", 77},
        {"touch $image", 65},
        {"head -c 3000 $good > $image", 65},
        {"truncate -s 1M $image; mkfs.ext4 -q -F $image", 65},
        {"cp $good $image; chown 1234 $image", 77},
        {"cp $good $image; chmod 666 $image", 77},
        {"cp $good $image; chmod 664 $image; chgrp 1234 $image", 77},
        {"cp $good $image; rmdir $point", 66},
    };
    const std::string names = "image=" + device().at(stored_image) +
                              "; good=" + device().at("/stage/good") +
                              "; point=" + device().at(mount_point);
    for (const auto& [make, status] : cases) {
        device().remove(stored_image);
        shell(names + "; " + make);
        EXPECT_TRUE(ended(device().run(mount_words), status)) << make;
        EXPECT_TRUE(device().is_clean()) << make;
    }
    EXPECT_TRUE(ended(device().run(umount_words), 0)) << "without a mount point";
}

TEST_F(MountRefusals, ForeignMountStays) {
    device().put_image("/stage/good", "1.0");
    device().put_image(stored_image, "1.0");
    const std::string point = device().at(mount_point);
    for (const std::string& what :
         {"-o loop,ro " + device().at("/stage/good"), std::string("-t tmpfs other")}) {
        shell("mount " + what + ' ' + point);
        const Words before = device().mounts();
        EXPECT_TRUE(ended(device().run(mount_words), 77)) << what;
        EXPECT_TRUE(ended(device().run(umount_words), 77)) << what;
        EXPECT_EQ(device().mounts(), before);
        shell("umount " + point);
    }
}

TEST_F(MountRefusals, BusyLoopDevicesAreTriedAgainButNotForEver) {
    device().put_image(stored_image, "1.0");
    for (const auto& [error, times] : {std::pair(EBUSY, 5), std::pair(EAGAIN, 1000)}) {
        int failures = 0;
        const auto busy = [&failures, error = error, times = times](const SystemCall& call) {
            const bool fails =
                call.number == SYS_ioctl && call.arguments[1] == LOOP_CONFIGURE && failures < times;
            failures += fails ? 1 : 0;
            return fails ? error : 0;
        };
        EXPECT_TRUE(ended(trace(device(), mount_words, busy), times == 5 ? 0 : 75));
        EXPECT_GE(failures, 5);
        EXPECT_LE(failures, 100);
        EXPECT_TRUE(ended(device().run(umount_words), 0));
    }
}

}  // namespace
}  // namespace mounter_test
