// Which images are trusted: --replaceimg and --mount, on what is stored.

#include "manifest.h"
#include "support/device.h"
#include "support/tracer.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>
#include <sys/syscall.h>

namespace mounter_test {
namespace {

class Signature : public LaidOutTest, public testing::WithParamInterface<const char*> {
protected:
    void prepare() override {
        LaidOutTest::prepare();
        const std::string made = "/stage/1.5." + std::string(GetParam());
        device().put_image(stored_image, "1.5", GetParam());
        good_ = device().read(made);
        file_system_ = device().read(made + ".unsigned");
    }

    Result replace_by(const std::string& image) {
        device().write(downloaded_image, image);
        return device().run(replace_words);
    }

    Result mount(const std::string& image) {
        device().write(stored_image, image);
        return device().run(mount_words);
    }

    void expect_refused(const std::string& image, const std::string& what) {
        SCOPED_TRACE(what);
        device().remove(stored_image);
        EXPECT_TRUE(ended(replace_by(image), 65));
        EXPECT_FALSE(device().exists(stored_image));
        EXPECT_TRUE(device().read(downloaded_image) == image);
        EXPECT_TRUE(ended(mount(image), 65));
        EXPECT_TRUE(device().is_clean());
    }

    void expect_taken(const std::string& image, const std::string& what) {
        SCOPED_TRACE(what);
        EXPECT_TRUE(ended(replace_by(image), 0));
        EXPECT_TRUE(device().read(stored_image) == image);
        EXPECT_TRUE(ended(device().run(mount_words), 0));
        EXPECT_TRUE(ended(device().run(umount_words), 0));
        device().remove(stored_image);
    }

    // With this comment instead of "version:1.5".
    std::string commented(const std::string& comment) {
        return file_system_ + device().maker().sign(file_system_, comment).trailer();
    }

    std::string good_;
    std::string file_system_;
};

TEST_P(Signature, WhatIsNotWholeAndTheMakersIsRefused) {
    const Maker stranger;
    Maker impostor;
    impostor.take_number_of(device().maker());
    const SignatureText text = device().maker().sign(file_system_, "version:1.5");
    std::vector<std::pair<std::string, std::string>> cases = {
        {"unsigned", file_system_},
        {"a stranger's", stranger.signed_image(file_system_, "1.5")},
        {"another key of that number", impostor.signed_image(file_system_, "1.5")},
        {"another image's signature",
         file_system_ + device().maker().sign(file_system_ + "x", "version:1.5").trailer()},
        {"something in between", file_system_ + std::string(4096, '\0') + text.trailer()},
        {"something behind", good_ + "\n"},
        {"truncated", good_.substr(0, good_.size() - 1)},
        {"only the trailer", text.trailer()},
    };
    const auto change = [&](const char* what, auto&& edit) {
        SignatureText changed = text;
        edit(changed);
        cases.emplace_back(what, file_system_ + changed.trailer());
    };
    change("another layout", [](SignatureText& it) { it.layout = 2; });
    change("no magic", [](SignatureText& it) { it.magic = "ADIMGSIX"; });
    const size_t length = text.trailer().size() - 16;
    for (const size_t error :
         {size_t{1}, ~size_t{0}, size_t{0x7ffff000}, 0 - length, file_system_.size()}) {
        change("another length", [error](SignatureText& it) { it.length_error = error; });
    }
    change("a comment of another", [&](SignatureText& it) {
        it.comment_signature = device().maker().sign("x", "version:1.5").comment_signature;
    });
    change("a changed comment", [](SignatureText& it) { it.trusted += " newer"; });
    change("a comment that nobody signed",
           [](SignatureText& it) { it.untrusted = "untrusted comment: hello"; });
    change("a fifth line", [](SignatureText& it) { it.comment_signature += "\n"; });
    change("windows lines", [](SignatureText& it) { it.signature += "\r"; });
    change("the other algorithm", [](SignatureText& it) { it.signature.replace(0, 3, "RWR"); });
    for (const char* comment :
         {"", "version:", "version:1.6", "version:1.50", "version:1.5 version:1.5", "noversion:1.5",
          "version:1.5000000000000000000000", "version:1.5\x01"}) {
        cases.emplace_back(comment, commented(comment));
    }
    for (const auto& [what, image] : cases) {
        expect_refused(image, what);
    }
    expect_taken(good_, "the good one");
    expect_taken(commented("file:a.img version:1.5\ttime:7"), "further words");
}

// Every bit of the trailer; a bit of each part of the file system.
TEST_P(Signature, OneFlippedBitAnywhereIsRefused) {
    size_t tried = 0;
    const auto try_bit = [&](size_t at, size_t bit) {
        std::string image = good_;
        image[at] = static_cast<char>(image[at] ^ 1 << bit);
        EXPECT_TRUE(ended(tried++ % 2 == 0 ? mount(image) : replace_by(image), 65))
            << "bit " << bit << " of byte " << at;
    };
    for (size_t at = file_system_.size(); at < good_.size() && !HasFailure(); ++at) {
        for (size_t bit = 0; bit < 8; ++bit) {
            try_bit(at, bit);
        }
    }
    for (size_t i = 0; i < 400 && !HasFailure(); ++i) {
        try_bit(i * (file_system_.size() - 1) / 399, i % 8);
    }
    EXPECT_EQ(device().mounts(), Words());
}

TEST_P(Signature, KeysAreRotatedOneByOne) {
    const Maker next;
    Maker twin;
    twin.take_number_of(device().maker());
    const std::string keys = key_directory;
    const std::string new_image = next.signed_image(file_system_, "1.5");
    expect_refused(new_image, "before");
    device().write(keys + "/next.pub", next.public_key());
    device().write(keys + "/twin.pub", twin.public_key());
    expect_taken(new_image, "both keys");
    expect_taken(good_, "both keys");
    expect_taken(twin.signed_image(file_system_, "1.5"), "a second key of one number");
    device().remove(device_key);
    device().remove(keys + "/twin.pub");
    expect_taken(new_image, "after");
    expect_refused(good_, "after");
}

TEST_P(Signature, UnsafeKeysAreNoKeys) {
    const std::pair<const char*, const char*> cases[] = {
        {"chmod 666 device.pub", "chmod 644 device.pub"},
        {"chmod 664 device.pub", "chmod 644 device.pub"},
        {"chown 1234 device.pub", "chown 0 device.pub"},
        {"chmod 1777 .", "chmod 755 ."},
        {"chown 1234 .", "chown 0 ."},
        {"chown 1234 ..", "chown 0 .."},
        {"ln -s device.pub other.pub", "rm other.pub"},
        {"mkfifo other.pub", "rm other.pub"},
        {"printf 'untrusted comment: key\\nhello\\n' > other.pub", "rm other.pub"},
        {"touch other.pub", "rm other.pub"},
        {"(echo 'untrusted comment: minisign encrypted secret key'; yes AAAA | head -n 53 | tr -d "
         "'\\n') > other.pub",
         "rm other.pub"},
        {"mv device.pub device.old", "mv device.old device.pub"},
        {"mv ../keys ../keys-", "mv ../keys- ../keys"},
    };
    for (const auto& [make, mend] : cases) {
        shell("cd " + device().at(key_directory) + " && " + make);
        expect_refused(good_, make);
        shell("cd " + device().at(key_directory) + "* && " + mend);
        expect_taken(good_, mend);
    }
}

// A signature over it does not make it an image that could be installed.
TEST_P(Signature, ManifestMustBeThereAndMatch) {
    const auto changed = [&](const char* change) {
        device().put_image("/stage/changed", "1.5", GetParam(), change);
        return device().read("/stage/changed");
    };
    expect_refused(commented("version:1.6"), "another version");
    for (const char* change :
         {"rm zelADAgent.xml", "ln -sf adplayer/res/page.html zelADAgent.xml",
          "(yes '' | head -c 100000; cat zelADAgent.xml) > long; mv long zelADAgent.xml"}) {
        expect_refused(changed(change), change);
    }
    expect_taken(changed("sed -i 's/>/> /' zelADAgent.xml"), "written otherwise");
}

// Its header counts one block more than is signed: its trailer, which is as long.
TEST_P(Signature, FileSystemMayNotReachIntoItsTrailer) {
    constexpr size_t block = 4096;
    const size_t place = GetParam() == std::string("squashfs") ? 40 : 1024 + 36;
    uint32_t length = 0;
    memcpy(&length, file_system_.data() + place, sizeof length);
    length = place == 40 ? static_cast<uint32_t>(file_system_.size() + block) : length + 1;
    memcpy(file_system_.data() + place, &length, sizeof length);
    const std::string comment = "version:1.5 ";
    const size_t missing = file_system_.size() + block - commented(comment).size();
    const std::string image = commented(comment + std::string(missing, 'x'));
    expect_refused(image, "beyond what is signed");
    EXPECT_NE(mount(image).err.find("truncated"), std::string::npos) << "left to the kernel";
}

// The writer changes the download when its copy has been made: the copy counts.
TEST_P(Signature, CopyIsVerifiedAndNotTheDownload) {
    std::string bad = good_;
    bad[bad.size() / 2] ^= 1;
    for (const bool good_first : {true, false}) {
        device().remove(stored_image);
        device().write(downloaded_image, good_first ? good_ : bad);
        device().give(downloaded_image, 1234, 1234);
        const std::string after = good_first ? bad : good_;
        bool copied = false;
        const Result result = trace(device(), replace_words, [&](const SystemCall& call) {
            if (copied && call.number == SYS_pread64) {
                device().write(downloaded_image, after);
            }
            copied = copied || (is_mutating(call) &&
                                (call.number == SYS_write || call.number == SYS_sendfile));
            return 0;
        });
        EXPECT_TRUE(copied);
        EXPECT_TRUE(ended(result, good_first ? 0 : 65));
        EXPECT_TRUE(device().read(stored_image) == (good_first ? good_ : ""));
        EXPECT_TRUE(device().is_clean());
    }
}

TEST_P(Signature, MountedImageIsVerifiedAgain) {
    ASSERT_TRUE(ended(mount(good_), 0));
    const Words before = device().mounts();
    device().remove(device_key);
    EXPECT_TRUE(ended(device().run(mount_words), 65));
    EXPECT_EQ(device().mounts(), before) << "it is left as it is";
    device().write(device_key, Maker().public_key());
    EXPECT_TRUE(ended(device().run(mount_words), 65));
    EXPECT_TRUE(ended(device().run(umount_words), 0)) << "unmounting takes no trust";
}

// Without the new mount interface the version is compared when it is mounted.
TEST_P(Signature, VersionIsComparedOnOlderKernelsToo) {
    device().write(stored_image, commented("version:1.6"));
    const auto no_fsopen = [](const SystemCall& call) {
        return call.number == SYS_fsopen ? ENOSYS : 0;
    };
    EXPECT_TRUE(ended(trace(device(), mount_words, no_fsopen), 65));
    EXPECT_TRUE(device().is_clean());
}

INSTANTIATE_TEST_SUITE_P(Types, Signature, testing::Values("squashfs", "erofs"),
                         [](const auto& type) { return std::string(type.param); });

TEST(Manifest, VersionIsTheFirstInTheRoot) {
    const std::pair<const char*, const char*> cases[] = {
        {"<Z><Version>1.05</Version></Z>", "1.05"},
        {"\xef\xbb\xbf<?xml?><Z><Version>\t1\n</Version><Version>2</Version></Z>", "1"},
        {"<Z><A><Version>1</Version></A><Version>2</Version></Z>", "2"},
        {"<Z><A b='>'/><A c=\">\"/><Version>1</Version></Z>", "1"},
        {"<Z/><Y><Version>1</Version></Y>", nullptr},
        {"<Version>1</Version>", nullptr},
        {"<Z><Versions>1</Versions></Z>", nullptr},
        {"<Z><Version/></Z>", nullptr},
        {"<Z><Version> </Version></Z>", nullptr},
        {"<Z><Version>1", nullptr},
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
        const bool found = ad_mounter::version_in_manifest(text, version);
        EXPECT_EQ(found, expected != nullptr) << text;
        if (found && expected != nullptr) {
            EXPECT_STREQ(version, expected) << text;
        }
    }
}

}  // namespace
}  // namespace mounter_test
