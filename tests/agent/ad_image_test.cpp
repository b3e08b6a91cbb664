// Making images, signing and publishing them, up to an agent that takes them.
#include "agent.h"
#include "temporary_folder.h"

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <utime.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class AdImage : public testing::Test {
protected:
    AdImage() {
        write_file(folder / "agent.so", read_file(AGENT_LIBRARY));
        write_file(folder / "player.so", read_file(PLAYER_LIBRARY));
        write_file(folder / "res/a.ini", "a");
        write_file(folder / "res/sub/b.ini", "b");
    }

    /** Runs a command line. @return its exit status; output has what it said */
    int run(const std::string& command) {
        FILE* pipe = popen(("cd '" + (folder / "") + "' && " + command + " 2>&1").c_str(), "r");
        output.clear();
        std::array<char, 4096> piece = {};
        for (std::size_t n = 0; (n = fread(piece.data(), 1, piece.size(), pipe)) > 0;)
            output.append(piece.data(), n);
        return WEXITSTATUS(pclose(pipe));
    }

    int pack(const std::string& version, const std::string& image,
             const std::string& options = "") {
        return run(AD_IMAGE " pack --version '" + version +
                   "' --agent agent.so --player player.so --resources res --output " + image + " " +
                   options);
    }

    /** Runs a command line that must fail, with a line that says so. */
    void expect_refusal(const std::string& command, const std::string& reason) {
        SCOPED_TRACE(command);
        EXPECT_EQ(run(command), 1);
        EXPECT_THAT(output, HasSubstr(reason));
        EXPECT_THAT(output, StartsWith("ad-image: "));
        EXPECT_EQ(output.find('\n'), output.size() - 1) << output;
    }

    void make_keys(const std::string& name) {
        ASSERT_EQ(
            run(AD_IMAGE " keygen --no-password --key " + name + ".key --public " + name + ".pub"),
            0)
            << output;
    }

    const TemporaryFolder folder;
    std::string output;
};

TEST_F(AdImage, IsTheSameForTheSameInput) {
    for (const std::string format : {"squashfs", "erofs"}) {
        SCOPED_TRACE(format);
        const std::string option = " --format " + format;
        ASSERT_EQ(pack("1.05", "one.img", option), 0) << output;
        // Another order, other modes and times, another environment.
        ASSERT_EQ(run("mv res old && mkdir -p res/sub && cp old/sub/b.ini res/sub && "
                      "cp old/a.ini res && rm -r old"),
                  0);
        chmod((folder / "agent.so").c_str(), 0777);
        const utimbuf long_ago = {1000, 1000};
        utime((folder / "res/a.ini").c_str(), &long_ago);
        ASSERT_EQ(run("umask 077; export SOURCE_DATE_EPOCH=5; " AD_IMAGE
                      " pack --version 1.05 --agent agent.so --player player.so"
                      " --resources res --output two.img" +
                      option),
                  0)
            << output;
        EXPECT_TRUE(read_file(folder / "one.img") == read_file(folder / "two.img"));
    }

    ASSERT_EQ(pack("1.05", "one.img"), 0) << output;
    ASSERT_EQ(run("unsquashfs -lln one.img"), 0);
    for (const char* entry : {"-rw-r--r-- 0/0", "1970-01-01 00:00 squashfs-root/libad-agent-fwk.so",
                              "drwxr-xr-x 0/0", "squashfs-root/adplayer/res/sub/b.ini"})
        EXPECT_THAT(output, HasSubstr(entry));
    ASSERT_EQ(run("unsquashfs -cat one.img zelADAgent.xml"), 0);
    EXPECT_EQ(output, "<Zel><Version>1.05</Version></Zel>\n");
}

TEST_F(AdImage, RefusesWhatNoDeviceCouldUse) {
    const std::string pack_old = AD_IMAGE " pack --version 1.05 --resources res --output old.img ";
    write_file(folder / "old.img", "old");
    for (const char* version : {"", "1.0.5", "v1", "1.", "1,05", "12345678901234567890"}) {
        EXPECT_NE(pack(version, "old.img"), 0) << version;
        EXPECT_THAT(output, HasSubstr("ad-image: ")) << version;
    }
    for (const char* target : {"/etc/passwd", "../x", "sub/../../x", "sub/../a.ini"}) {
        std::filesystem::create_symlink(target, folder / "res/link");
        expect_refusal(pack_old + "--agent agent.so --player player.so",
                       "adplayer/res/link is a link that leads out of");
        std::filesystem::remove(folder / "res/link");
    }
    mkfifo((folder / "res/pipe").c_str(), 0600);
    expect_refusal(pack_old + "--agent agent.so --player player.so",
                   "adplayer/res/pipe is neither file, directory nor link");
    std::filesystem::remove(folder / "res/pipe");

    expect_refusal(pack_old + "--agent none.so --player player.so", "none.so is not a file");
    expect_refusal(pack_old + "--agent res/a.ini --player player.so", "is not a shared library");
    expect_refusal(pack_old + "--agent agent.so --player res/a.ini", "is not a shared library");
    expect_refusal(pack_old + "--agent player.so --player player.so",
                   "player.so does not export ad_agent_init ad_agent_clear");
    std::string other = read_file(folder / "player.so");
    other[18] = '\x28';  // e_machine: ARM
    other[19] = '\0';
    write_file(folder / "other.so", other);
    expect_refusal(pack_old + "--agent agent.so --player other.so", "other.so is for arm, not for");
    expect_refusal(pack_old + "--agent agent.so --player player.so --architecture arm",
                   ", not for arm");

    EXPECT_EQ(run(AD_IMAGE " publish agent.so"), 2);
    EXPECT_EQ(run(AD_IMAGE " frobnicate"), 2);
    expect_refusal(AD_IMAGE " publish --unsigned player.so web", "player.so is no image");
    expect_refusal(AD_IMAGE " publish --min-firmware 'a b' old.img web", "is not a firmware");

    EXPECT_EQ(read_file(folder / "old.img"), "old");
    EXPECT_EQ(names_in(folder / ""), (std::set<std::string>{"agent.so", "old.img", "other.so",
                                                            "player.so", "res", "web"}));
    EXPECT_TRUE(names_in(folder / "web").empty());
}

TEST_F(AdImage, KeepsLinksThatStayInside) {
    std::filesystem::create_symlink("../a.ini", folder / "res/sub/up");
    std::filesystem::create_symlink("./sub//b.ini", folder / "res/down");
    for (const std::string format : {"squashfs", "erofs"}) {
        ASSERT_EQ(pack("1.05", format, "--format " + format), 0) << output;
        ASSERT_EQ(run(AD_IMAGE " show " + format), 0) << output;
        EXPECT_THAT(output, HasSubstr("format       " + format + "\n"));
        for (const char* line : {"version      1.05\n", "signature    none\n",
                                 "contents     5 files", "  adplayer/res/sub/up\n",
                                 "  adplayer/res/down\n", "         1  adplayer/res/a.ini\n"})
            EXPECT_THAT(output, HasSubstr(line));
    }
}

class SignedImage : public AdImage {
protected:
    SignedImage() { make_keys("maker"); }

    void sign(const std::string& image, const std::string& format = "squashfs") {
        ASSERT_EQ(pack("1.05", image, "--format " + format), 0) << output;
        ASSERT_EQ(run(AD_IMAGE " sign --key maker.key " + image), 0) << output;
    }
};

TEST_F(SignedImage, HoldsWhatMinisignMakes) {
    struct stat status = {};
    ASSERT_EQ(stat((folder / "maker.key").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600);
    expect_refusal(AD_IMAGE " keygen --no-password --key maker.key --public new.pub",
                   "maker.key is there already");

    for (const std::string format : {"squashfs", "erofs"}) {
        SCOPED_TRACE(format);
        ASSERT_EQ(pack("1.05", "plain.img", "--format " + format), 0) << output;
        sign("signed.img", format);
        const std::string plain = read_file(folder / "plain.img");
        const std::string image = read_file(folder / "signed.img");
        ASSERT_GT(image.size(), plain.size() + 16);
        EXPECT_TRUE(image.compare(0, plain.size(), plain) == 0);

        const std::string footer = image.substr(image.size() - 16);
        const std::string signature =
            image.substr(plain.size(), image.size() - plain.size() - footer.size());
        const auto length = static_cast<char>(signature.size() & 255);
        EXPECT_EQ(footer, std::string("ADIMGSIG") + length +
                              static_cast<char>(signature.size() >> 8) +
                              std::string("\0\0\1\0\0\0", 6));
        write_file(folder / "signature", signature);
        EXPECT_EQ(run("minisign -VHQm plain.img -p maker.pub -x signature"), 0);
        EXPECT_EQ(output, "version:1.05\n");
        EXPECT_EQ(run(AD_IMAGE " verify --key maker.pub signed.img"), 0) << output;
    }
    ASSERT_EQ(run("sed -n '1s/.* //p' maker.pub"), 0);
    const std::string key = output;
    ASSERT_EQ(run(AD_IMAGE " show signed.img"), 0);
    EXPECT_THAT(output, HasSubstr("signature    of key " + key.substr(0, key.size() - 1) + ","));
    EXPECT_THAT(output, HasSubstr("trusted comment: version:1.05\n"));
}

TEST_F(SignedImage, IsRefusedWhenAnythingIsWrongWithIt) {
    sign("good.img");
    const std::string good = read_file(folder / "good.img");
    const auto expect_bad = [&](const std::string& bytes, const std::string& reason) {
        write_file(folder / "bad.img", bytes);
        expect_refusal(AD_IMAGE " verify --key maker.pub bad.img", reason);
    };
    std::string flipped = good;
    flipped[100] ^= 1;
    expect_bad(flipped, "bad.img was changed, or not signed with the key of maker.pub");
    expect_bad(good.substr(0, good.size() - 1), "bad.img is not signed");
    expect_bad(good.substr(1), "was changed");
    const std::size_t length = good.size() - 8;
    for (const char* lie : {"\xff\xff\xff\xff", "\0\0\0\0", "\x10\0\0\0"})
        expect_bad(std::string(good).replace(length, 4, lie, 4),
                   *lie == '\x10' ? "was changed" : "cannot hold a signature of");
    expect_bad(std::string(good).replace(length + 4, 1, "\2"), "has a layout that");

    make_keys("other");
    expect_refusal(AD_IMAGE " verify --key other.pub good.img", "not signed with the key");
    expect_refusal(AD_IMAGE " sign --key maker.key good.img", "good.img is signed already");
    expect_refusal(AD_IMAGE " sign --key other.pub res/a.ini", "res/a.ini is no image");

    // The right key for another version, or for none.
    ASSERT_EQ(pack("1.06", "plain.img"), 0);
    const std::string plain = read_file(folder / "plain.img");
    for (const char* comment : {"version:1.05", "something", "version:1.06 version:1.05"}) {
        ASSERT_EQ(
            run("minisign -S -s maker.key -m plain.img -x s -t '" + std::string(comment) + "'"), 0);
        const std::string signature = read_file(folder / "s");
        const std::string footer =
            std::string("ADIMGSIG") + static_cast<char>(signature.size() & 255) +
            static_cast<char>(signature.size() >> 8) + std::string("\0\0\1\0\0\0", 6);
        std::string image = plain;
        image.append(signature).append(footer);
        expect_bad(image, comment == std::string("version:1.05")
                              ? "holds version 1.06, but its signature is for 1.05"
                              : "versions: sign it with");
        expect_refusal(AD_IMAGE " publish bad.img web", "");
    }
    EXPECT_TRUE(names_in(folder / "web").empty());
}

TEST_F(SignedImage, IsPublishedForAgentsToTake) {
    sign("5.img");
    ASSERT_EQ(pack("1.06", "6.img"), 0) << output;
    write_file(folder / "tile.json", R"({"tiles": 1})");
    write_file(folder / "agent.conf", "[server]\nurl=file://" + (folder / "web") + "\n");
    const ad_agent::Agent agent({folder / "agent.conf", folder / "data", folder / "stored",
                                 folder / "updatable", folder / "builtin", folder / "manifest"});

    ASSERT_EQ(run(AD_IMAGE " publish --key maker.pub --tile-ad tile.json 5.img web"), 0) << output;
    EXPECT_TRUE(agent.fetch_configuration("/TileAd/v2"));
    EXPECT_TRUE(agent.fetch_configuration("/AppsAd/v2"));
    EXPECT_EQ(read_file(folder / "data/TileAd-v2.json"), R"({"tiles": 1})");
    EXPECT_TRUE(agent.update("0.00"));
    agent.set_version("1.05");
    EXPECT_FALSE(agent.update("1.05"));

    expect_refusal(AD_IMAGE " publish 6.img web", "6.img is not signed: sign it with");
    ASSERT_EQ(run(AD_IMAGE " publish --unsigned --min-firmware T-1 --max-firmware T-2 6.img web"),
              0)
        << output;
    EXPECT_THAT(read_file(folder / "web/update.ini"),
                HasSubstr("min_firmware=T-1\nmax_firmware=T-2\n"));
    EXPECT_FALSE(agent.update("1.05"));  // there is no platform here
    ASSERT_EQ(run(AD_IMAGE " sign --key maker.key 6.img"), 0) << output;
    ASSERT_EQ(run(AD_IMAGE " publish 6.img web"), 0) << output;
    EXPECT_TRUE(agent.update("1.05"));
    EXPECT_TRUE(read_file(folder / "data/zelADAgent.img") == read_file(folder / "6.img"));
    EXPECT_EQ(read_file(folder / "web/TileAd/v2"), R"({"tiles": 1})");
    EXPECT_EQ(names_in(folder / "web"),
              (std::set<std::string>{"AppsAd", "TileAd", "images", "update.ini"}));

    write_file(folder / "page.html", "<html></html>");
    expect_refusal(AD_IMAGE " publish --apps-ad page.html 5.img web",
                   "page.html is not a JSON object");
    EXPECT_THAT(read_file(folder / "web/update.ini"), HasSubstr("version=1.06"));

    // Published again it is the same; a published file that has changed stops it.
    const std::string index = read_file(folder / "web/update.ini");
    ASSERT_EQ(run(AD_IMAGE " publish 6.img web"), 0) << output;
    EXPECT_EQ(names_in(folder / "web/images").size(), 3U);
    ASSERT_EQ(run("for f in web/images/*-1.06-*.img; do echo x >>$f; done"), 0);
    expect_refusal(AD_IMAGE " publish 6.img web", "has another content");
    EXPECT_EQ(read_file(folder / "web/update.ini"), index);
}

}  // namespace
