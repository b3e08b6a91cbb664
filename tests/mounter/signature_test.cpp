// Which images are trusted: --replaceimg and --mount, on what is stored.

#include "manifest.h"
#include "support/device.h"
#include "support/tracer.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t user = 1234;

// How an image gets onto the device, and what is told about one that is refused.
class Signature : public DeviceTest, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().make_layout();
            device().put_image("/stage/good", "1.5", type());
            good_ = device().read("/stage/good");
            file_system_ = without_trailer(good_);
        }
    }

    static std::string type() { return GetParam(); }

    // A good image is stored and mounted; the other one is downloaded.
    Result replace_by(const std::string& image) {
        device().write(downloaded_image, image);
        return device().run(replace_words);
    }

    Result mount(const std::string& image) {
        device().write(stored_image, image);
        return device().run(mount_words);
    }

    void expect_refused(const std::string& image, const std::string& what) {
        device().remove(stored_image);
        const Result replaced = replace_by(image);
        EXPECT_EQ(replaced.status, 65) << what << ": " << replaced.err;
        EXPECT_TRUE(is_one_line(replaced)) << what;
        EXPECT_FALSE(device().exists(stored_image)) << what;
        EXPECT_TRUE(device().read(downloaded_image) == image) << what;
        const Result mounted = mount(image);
        EXPECT_EQ(mounted.status, 65) << what << ": " << mounted.err;
        EXPECT_TRUE(is_one_line(mounted)) << what;
        EXPECT_EQ(device().mounts().size(), 0U) << what;
        EXPECT_EQ(device().loop_devices(), Words()) << what;
        EXPECT_EQ(device().leftovers(), Words()) << what;
    }

    void expect_taken(const std::string& image, const std::string& what) {
        const Result replaced = replace_by(image);
        EXPECT_EQ(replaced.status, 0) << what << ": " << replaced.err;
        EXPECT_TRUE(device().read(stored_image) == image) << what;
        const Result mounted = device().run(mount_words);
        EXPECT_EQ(mounted.status, 0) << what << ": " << mounted.err;
        EXPECT_EQ(device().run(umount_words).status, 0);
        device().remove(stored_image);
    }

    std::string resigned(const std::string& bytes, const std::string& version = "1.5") {
        return device().maker().signed_image(bytes, version);
    }

    std::string good_;
    std::string file_system_;
};

TEST_P(Signature, WhatIsNotWholeAndTheMakersIsRefused) {
    const Maker stranger;
    Maker impostor;
    const SignatureText text = device().maker().sign(file_system_, "version:1.5");
    struct Case {
        const char* what;
        std::string image;
    };
    std::vector<Case> cases = {
        {"unsigned", file_system_},
        {"a stranger's", stranger.signed_image(file_system_, "1.5")},
        {"another image's signature",
         file_system_ + device().maker().sign(file_system_ + "x", "version:1.5").trailer()},
        {"something in between", file_system_ + std::string(4096, '\0') + text.trailer()},
        {"something behind", good_ + "\n"},
        {"only the trailer", text.trailer()},
    };
    const auto change = [&](const char* what, auto&& edit) {
        SignatureText changed = text;
        edit(changed);
        cases.push_back({what, file_system_ + changed.trailer()});
    };
    change("another layout", [](SignatureText& it) { it.layout = 2; });
    change("no magic", [](SignatureText& it) { it.magic = "ADIMGSIX"; });
    change("longer", [](SignatureText& it) { it.length_error = 1; });
    change("shorter", [](SignatureText& it) { it.length_error = -1; });
    change("longer than the file", [](SignatureText& it) { it.length_error = 0x7ffff000; });
    change("no length", [](SignatureText& it) {
        it.length_error = 16 - static_cast<long>(it.trailer().size());
    });
    change("as long as all",
           [&](SignatureText& it) { it.length_error = static_cast<long>(file_system_.size()); });
    change("a comment of another", [&](SignatureText& it) {
        it.comment_signature = device().maker().sign("x", "version:1.5").comment_signature;
    });
    change("a changed comment", [](SignatureText& it) { it.trusted += " newer"; });
    change("a comment that nobody signed",
           [](SignatureText& it) { it.untrusted = "untrusted comment: hello"; });
    change("a fifth line", [](SignatureText& it) { it.comment_signature += "\n"; });
    change("windows lines", [](SignatureText& it) { it.signature += "\r"; });
    change("the other algorithm", [](SignatureText& it) { it.signature.replace(0, 3, "RWR"); });
    for (const char* comment : {"", "1.5", "version:", "version:1.6", "version:1.50",
                                "version:1.5 version:1.5", "version:1.5 version:1.6", "Version:1.5",
                                "noversion:1.5", "version:1.5000000000000000000000", "version:1.5\x01"}) {
        cases.push_back(
            {comment, file_system_ + device().maker().sign(file_system_, comment).trailer()});
    }
    impostor.take_number_of(device().maker());
    cases.push_back({"another key of that number", impostor.signed_image(file_system_, "1.5")});
    for (const Case& one : cases) {
        expect_refused(one.image, one.what);
    }
    expect_taken(good_, "the good one");
    expect_taken(
        file_system_ +
            device().maker().sign(file_system_, "file:a.img version:1.5\ttime:7").trailer(),
        "further words");
}

// Every bit of the trailer; a bit of each part of the file system.
TEST_P(Signature, OneFlippedBitAnywhereIsRefused) {
    size_t tried = 0;
    const auto try_bit = [&](size_t at, int bit) {
        std::string image = good_;
        image[at] = static_cast<char>(image[at] ^ 1 << bit);
        const Result result = tried % 2 == 0 ? mount(image) : replace_by(image);
        EXPECT_EQ(result.status, 65) << "bit " << bit << " of byte " << at << ": " << result.err;
        EXPECT_EQ(device().mounts().size(), 0U);
        ++tried;
    };
    for (size_t at = file_system_.size(); at < good_.size() && !HasFailure(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            try_bit(at, bit);
        }
    }
    for (size_t i = 0; i < 400 && !HasFailure(); ++i) {
        try_bit(i * (file_system_.size() - 1) / 399, static_cast<int>(i % 8));
    }
    std::cout << tried << " bits flipped\n";
}

TEST_P(Signature, CutAnywhereIsRefused) {
    for (size_t cut = 1; cut <= good_.size() && !HasFailure();
         cut += cut < 500 ? 7 : good_.size() / 40) {
        expect_refused(good_.substr(0, good_.size() - cut), "cut by " + std::to_string(cut));
    }
}

TEST_P(Signature, KeysAreRotatedOneByOne) {
    const Maker next;
    Maker twin;
    twin.take_number_of(device().maker());
    const std::string new_image = next.signed_image(file_system_, "1.5");
    expect_refused(new_image, "before");
    device().write(std::string(key_directory) + "/next.pub", next.public_key());
    device().write(std::string(key_directory) + "/twin.pub", twin.public_key());
    expect_taken(new_image, "both keys");
    expect_taken(good_, "both keys");
    expect_taken(twin.signed_image(file_system_, "1.5"), "a second key of one number");
    device().remove(device_key);
    device().remove(std::string(key_directory) + "/twin.pub");
    expect_taken(new_image, "after");
    expect_refused(good_, "after");
}

TEST_P(Signature, UnsafeKeysAreNoKeys) {
    const std::string key = device().at(device_key);
    const std::string above = fs::path(device().at(key_directory)).parent_path();
    const std::string other = std::string(key_directory) + "/other.pub";
    const std::string linked = device().at(other);
    struct Case {
        const char* what;
        std::function<void()> make;
        std::function<void()> mend;
    };
    const auto mode_of = [](const std::string& path, mode_t mode) {
        return [path, mode] { chmod(path.c_str(), mode); };
    };
    const auto owner_of = [](const std::string& path, uid_t owner) {
        return [path, owner] { (void)!chown(path.c_str(), owner, 0); };
    };
    const std::string directory = device().at(key_directory);
    const auto more = [&](const std::string& text) {
        return [this, other, text] { device().write(other, text); };
    };
    const auto no_more = [this, other] { device().remove(other); };
    const Case cases[] = {
        {"writable file", mode_of(key, 0666), mode_of(key, 0644)},
        {"file writable for a group", mode_of(key, 0664), mode_of(key, 0644)},
        {"a user's file", owner_of(key, user), owner_of(key, 0)},
        {"writable directory", mode_of(directory, 01777), mode_of(directory, 0755)},
        {"a user's directory", owner_of(directory, user), owner_of(directory, 0)},
        {"a user's above", owner_of(above, user), owner_of(above, 0)},
        {"a link", [&] { fs::create_symlink(device_key, linked); }, no_more},
        {"a pipe", [&] { mkfifo(linked.c_str(), 0644); }, no_more},
        {"no key in it", more("untrusted comment: key\nhello\n"), no_more},
        {"an empty one", more(""), no_more},
        {"a secret one",
         more("untrusted comment: minisign encrypted secret key\n" + std::string(212, 'A') + '\n'),
         no_more},
        {"none", [&] { fs::rename(key, key + ".old"); }, [&] { fs::rename(key + ".old", key); }},
        {"no directory", [&] { fs::rename(above, above + "-"); },
         [&] { fs::rename(above + "-", above); }},
    };
    for (const Case& one : cases) {
        one.make();
        expect_refused(good_, one.what);
        one.mend();
        expect_taken(good_, std::string("without: ") + one.what);
    }
}

// A signature over it does not make it an image that could be installed.
TEST_P(Signature, ManifestMustBeThereAndMatch) {
    const auto changed = [&](const std::function<void(const std::string&)>& change) {
        device().put_image("/stage/changed", "1.5", type(), change);
        return device().read("/stage/changed");
    };
    expect_refused(resigned(file_system_, "1.6"), "another version");
    expect_refused(changed([](const std::string& tree) { fs::remove(tree + "/zelADAgent.xml"); }),
                   "no manifest");
    expect_refused(changed([](const std::string& tree) {
                       fs::remove(tree + "/zelADAgent.xml");
                       fs::create_symlink("adplayer/res/page.html", tree + "/zelADAgent.xml");
                   }),
                   "a link");
    expect_refused(changed([](const std::string& tree) {
                       std::ofstream(tree + "/zelADAgent.xml")
                           << std::string(100'000, ' ') << "<Zel><Version>1.5</Version></Zel>";
                   }),
                   "far too long");
    expect_taken(changed([](const std::string& tree) {
                     std::ofstream(tree + "/zelADAgent.xml")
                         << "<?xml version='1.0'?>\n<!-- <Version>9</Version> -->\n<Zel>\n"
                            "  <Of a='>'/><Other><Version>2</Version></Other>\n"
                            "  <Version since=\"1.0\">\n 1.5 </Version>\n</Zel>\n";
                 }),
                 "written otherwise");
}

TEST_P(Signature, FileSystemMayNotReachIntoItsTrailer) {
    std::string image = file_system_;
    if (type() == "squashfs") {
        const auto size = static_cast<uint32_t>(image.size() + 20);
        memcpy(image.data() + 40, &size, sizeof size);
    } else {
        uint32_t blocks = 0;
        memcpy(&blocks, image.data() + 1024 + 36, sizeof blocks);
        ++blocks;
        memcpy(image.data() + 1024 + 36, &blocks, sizeof blocks);
        // A comment long enough for another block.
        const std::string comment = "version:1.5 " + std::string(3700, 'x');
        expect_refused(image + device().maker().sign(image, comment).trailer(), "with a block");
    }
    expect_refused(resigned(image), "beyond what is signed");
}

// The writer changes the download when its copy has been made: the copy counts.
TEST_P(Signature, CopyIsVerifiedAndNotTheDownload) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    std::string bad = good_;
    bad[bad.size() / 2] ^= 1;
    for (const bool good_first : {true, false}) {
        device().remove(stored_image);
        device().write(downloaded_image, good_first ? good_ : bad);
        device().give(downloaded_image, user, user);
        const std::string after = good_first ? bad : good_;
        const int writer = open(device().at(downloaded_image).c_str(), O_WRONLY);
        bool copied = false;
        bool changed = false;
        const Result result =
            trace(device(), replace_words, [&](const SystemCall& call) -> Decision {
                copied = copied || call.number == SYS_sendfile;
                if (copied && !changed && call.number == SYS_pread64) {
                    changed = true;
                    EXPECT_EQ(pwrite(writer, after.data(), after.size(), 0),
                              static_cast<ssize_t>(after.size()));
                }
                return {};
            });
        close(writer);
        EXPECT_TRUE(changed || !copied);
        EXPECT_EQ(result.status, good_first ? 0 : 65) << result.err;
        EXPECT_TRUE(device().read(stored_image) == (good_first ? good_ : ""));
        EXPECT_EQ(device().leftovers(), Words());
    }
}

TEST_P(Signature, MountedImageIsVerifiedAgain) {
    ASSERT_EQ(mount(good_).status, 0);
    const auto before = device().mounts();
    device().remove(device_key);
    EXPECT_EQ(device().run(mount_words).status, 65);
    EXPECT_EQ(device().mounts(), before) << "it is left as it is";
    device().write(device_key, Maker().public_key());
    EXPECT_EQ(device().run(mount_words).status, 65);
    EXPECT_EQ(device().run(umount_words).status, 0) << "unmounting takes no trust";
}

// Without the new mount interface the version is compared when it is mounted.
TEST_P(Signature, VersionIsComparedOnOlderKernelsToo) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    device().write(stored_image, resigned(file_system_, "1.6"));
    const Result result = trace(device(), mount_words, [](const SystemCall& call) -> Decision {
        return call.number == SYS_fsopen ? Decision{Decision::fail, ENOSYS} : Decision{};
    });
    EXPECT_EQ(result.status, 65) << result.err;
    EXPECT_TRUE(is_one_line(result));
    EXPECT_EQ(device().mounts().size(), 0U);
    EXPECT_EQ(device().loop_devices(), Words());
}

INSTANTIATE_TEST_SUITE_P(Types, Signature, testing::Values("squashfs", "erofs"),
                         [](const auto& type) { return std::string(type.param); });

TEST(Manifest, VersionIsTheFirstInTheRoot) {
    const std::pair<const char*, const char*> cases[] = {
        {"<Z><Version>1.05</Version></Z>", "1.05"},
        {"\xef\xbb\xbf<?xml?><Z><Version>\t1\n</Version><Version>2</Version></Z>", "1"},
        {"<Z><A><Version>1</Version></A><Version>2</Version></Z>", "2"},
        {"<Z/><Y><Version>1</Version></Y>", nullptr},
        {"<Version>1</Version>", nullptr},
        {"<Z></Z><Y><Version>1</Version></Y>", nullptr},
        {"<Z><Versions>1</Versions></Z>", nullptr},
        {"<Z><Version/></Z>", nullptr},
        {"<Z><Version> </Version></Z>", nullptr},
        {"<Z><Version>1", nullptr},
        {"<Z><Version>1</Versio", nullptr},
        {"<Z><Version>1<!-- 2 --></Version></Z>", nullptr},
        {"<Z><Version>&#49;</Version></Z>", nullptr},
        {"<Z><Version>1 2</Version></Z>", nullptr},
        {"<Z><![CDATA[<Version>1</Version>]]></Z>", nullptr},
        {"<Z><!-- <Version>1</Version></Z>", nullptr},
        {"<Z><Version>12345678901234567890</Version></Z>", nullptr},
        {"", nullptr},
    };
    for (const auto& [text, expected] : cases) {
        char version[ad_mounter::version_size];
        const bool found = ad_mounter::version_in_manifest(text, strlen(text), version);
        EXPECT_EQ(found, expected != nullptr) << text;
        if (found && expected != nullptr) {
            EXPECT_STREQ(version, expected) << text;
        }
    }
}

}  // namespace
}  // namespace mounter_test
