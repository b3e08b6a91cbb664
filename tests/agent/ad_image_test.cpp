// Making images, signing and publishing them, up to an agent that takes them.
#include "agent.h"
#include "files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

/** What is given again behind it counts. */
const std::string PACK =
    "ad-image pack --resources res --agent agent.so --player player.so --version 1.05 ";

class AdImage : public testing::Test {
protected:
    AdImage() {
        make("cp " AGENT_LIBRARY " agent.so; cp " PLAYER_LIBRARY
             " player.so; mkdir -p res/sub;"
             "printf a >res/a.ini; ln -s ./sub//b.ini res/down;"
             "printf b >res/sub/b.ini; ln -s ../a.ini res/sub/up;"
             "for name in maker other; do"
             "  ad-image keygen --no-password --key $name.key --public $name.pub; done");
    }

    /** Runs a command line. @return its exit status; output has what it said */
    int run(const std::string& command) {
        return run_in(folder / "", "PATH=" TOOLS ":$PATH; " + command, output);
    }

    /** Runs a command line that must not fail. */
    void make(const std::string& command) { ASSERT_EQ(run(command), 0) << command << output; }

    /** Runs a command line that must fail, with a line that says so. */
    void expect_refusal(const std::string& command, const std::string& reason) {
        EXPECT_EQ(run(command), 1) << command;
        EXPECT_THAT(output, HasSubstr(reason)) << command;
        EXPECT_THAT(output, MatchesRegex("ad-image: [^\n]*\n")) << command;
    }

    std::string read(const std::string& name) const { return read_file(folder / name); }

    const TemporaryFolder folder;
    std::string output;
};

TEST_F(AdImage, IsTheSameForTheSameInput) {
    for (const std::string format : {"erofs", "squashfs"}) {
        make(PACK + "--output one.img --format " + format);
        // Another order, other modes and times, another environment.
        make(
            "mv res old && mkdir res && cp -r old/sub old/down res && cp old/a.ini res"
            " && rm -r old && chmod 0777 agent.so && touch -d @1000 res/a.ini");
        make("umask 077; export SOURCE_DATE_EPOCH=5; " + PACK + "--output two.img --format " +
             format);
        EXPECT_TRUE(read("one.img") == read("two.img")) << format;

        make("ad-image show one.img");
        EXPECT_THAT(output, HasSubstr("version      1.05\nformat       " + format + "\n"));
        for (const char* line :
             {"signature    none\n", "contents     5 files", "  adplayer/res/sub/up\n",
              "  adplayer/res/down\n", "         1  adplayer/res/a.ini\n"})
            EXPECT_THAT(output, HasSubstr(line));
    }
    make("unsquashfs -lln one.img");
    for (const char* entry : {"-rw-r--r-- 0/0", "1970-01-01 00:00 squashfs-root/libad-agent-fwk.so",
                              "drwxr-xr-x 0/0", "squashfs-root/adplayer/res/sub/b.ini"})
        EXPECT_THAT(output, HasSubstr(entry));
    make("unsquashfs -cat one.img zelADAgent.xml");
    EXPECT_EQ(output, "<Zel><Version>1.05</Version></Zel>\n");
}

TEST_F(AdImage, RefusesWhatNoDeviceCouldUse) {
    const std::string pack = PACK + "--output old.img ";
    write_file(folder / "old.img", "old");
    for (const char* target : {"/etc/passwd", "../x", "sub/../a.ini"}) {
        std::filesystem::create_symlink(target, folder / "res/link");
        expect_refusal(pack, "adplayer/res/link is a link that leads out of");
        std::filesystem::remove(folder / "res/link");
    }
    make("mkfifo res/pipe");
    expect_refusal(pack, "adplayer/res/pipe is neither file, directory nor link");
    std::filesystem::remove(folder / "res/pipe");

    std::string other = read("player.so");
    other.replace(18, 2, "\x28\0", 2);  // e_machine: ARM
    write_file(folder / "other.so", other);
    for (const auto& [options, reason] :
         Cases{{"--version 1.0.5", "is not a decimal fraction"},
               {"--version 12345678901234567890", "is not a decimal fraction"},
               {"--agent none.so", "none.so is not a file"},
               {"--agent res/a.ini", "is not a shared library"},
               {"--agent player.so", "player.so does not export ad_agent_init ad_agent"},
               {"--player other.so", "other.so is for arm, not for"},
               {"--architecture arm", ", not for arm"}})
        expect_refusal(pack + options, reason);

    for (const char* wrong : {"publish agent.so", "frobnicate", "pack --version 1.05"})
        EXPECT_EQ(run(std::string("ad-image ") + wrong), 2);
    expect_refusal("ad-image publish --unsigned player.so web", "player.so is no image");
    expect_refusal("ad-image publish --min-firmware 'a b' old.img web", "is not a firmware");

    EXPECT_EQ(read("old.img"), "old");
    EXPECT_EQ(names_in(folder / ""),
              (Names{"agent.so", "maker.key", "maker.pub", "old.img", "other.key", "other.pub",
                     "other.so", "player.so", "res", "web"}));
    EXPECT_THAT(names_in(folder / "web"), IsEmpty());
}

/** The trailer of a signed image. */
std::string trailer(const std::string& signature) {
    return signature + "ADIMGSIG" + static_cast<char>(signature.size() & 255) +
           static_cast<char>(signature.size() >> 8) + std::string("\0\0\1\0\0\0", 6);
}

TEST_F(AdImage, IsSignedAsMinisignDoes) {
    EXPECT_EQ(std::filesystem::status(folder / "maker.key").permissions(),
              std::filesystem::perms(0600));
    expect_refusal("ad-image keygen --no-password --key maker.key --public new.pub",
                   "maker.key is there already");

    for (const std::string format : {"squashfs", "erofs"}) {
        make(PACK + "--output plain.img --format " + format);
        make("cp plain.img signed.img; ad-image sign --key maker.key signed.img");
        const std::string plain = read("plain.img");
        const std::string image = read("signed.img");
        ASSERT_GT(image.size(), plain.size() + 16);
        const std::string signature = image.substr(plain.size(), image.size() - plain.size() - 16);
        EXPECT_TRUE(image == plain + trailer(signature)) << format;
        write_file(folder / "signature", signature);
        make("minisign -VHQm plain.img -p maker.pub -x signature");
        EXPECT_EQ(output, "version:1.05\n");
        make("ad-image verify --key maker.pub signed.img");
    }
    // minisign itself tells the number, without its leading zeros.
    make("sed -n '1s/.* //p' maker.pub");
    const std::string key = output.substr(0, output.size() - 1);
    make("ad-image show signed.img");
    EXPECT_THAT(output, HasSubstr("signature    of key " + key + ","));
    EXPECT_THAT(output, HasSubstr("trusted comment: version:1.05\n"));
}

TEST_F(AdImage, IsRefusedWhenAnythingIsWrongWithItsSignature) {
    make(PACK + "--output good.img && ad-image sign --key maker.key good.img");
    const std::string good = read("good.img");
    const auto expect_bad = [&](const std::string& bytes, const std::string& reason) {
        write_file(folder / "bad.img", bytes);
        expect_refusal("ad-image verify --key maker.pub bad.img", reason);
    };
    expect_bad(good.substr(1), "bad.img was changed, or not signed with the key of maker.pub");
    expect_bad(good.substr(0, good.size() - 1), "bad.img is not signed");
    const std::size_t length = good.size() - 8;
    for (const char* lie : {"\xff\xff\xff\xff", "\0\0\0\0"})
        expect_bad(std::string(good).replace(length, 4, lie, 4), "cannot hold a signature of");
    expect_bad(std::string(good).replace(length + 4, 1, "\2"), "has a layout that");
    expect_refusal("ad-image verify --key other.pub good.img", "not signed with the key");
    expect_refusal("ad-image sign --key maker.key good.img", "good.img is signed already");
    expect_refusal("ad-image sign --key other.key res/a.ini", "res/a.ini is no image");

    // The right key for another version, or for none.
    make(PACK + "--output plain.img --version 1.06");
    for (const auto& [comment, reason] :
         Cases{{"version:1.05", "holds version 1.06, but its signature is for 1.05"},
               {"something", "versions: sign it with"},
               {"version:1.06 version:1.05", "versions: sign it with"}}) {
        make("minisign -S -s maker.key -m plain.img -x s -t '" + comment + "'");
        expect_bad(read("plain.img") + trailer(read("s")), reason);
        expect_refusal("ad-image publish bad.img web", reason);
    }
    EXPECT_THAT(names_in(folder / "web"), IsEmpty());
}

TEST_F(AdImage, IsPublishedForAgentsToTake) {
    make(PACK + "--output 5.img && ad-image sign --key maker.key 5.img && " + PACK +
         "--output 6.img --version 1.06");
    write_file(folder / "tile.json", R"({"tiles": 1})");
    write_file(folder / "agent.conf", "[server]\nurl=file://" + folder / "web" + "\n");
    const ad_agent::Agent agent({folder / "agent.conf", folder / "data", folder / "stored",
                                 folder / "updatable", folder / "builtin", folder / "manifest"});

    make("ad-image publish --key maker.pub --tile-ad tile.json 5.img web");
    EXPECT_TRUE(agent.fetch_configuration("/TileAd/v2"));
    EXPECT_TRUE(agent.fetch_configuration("/AppsAd/v2"));
    EXPECT_EQ(read("data/TileAd-v2.json"), R"({"tiles": 1})");
    EXPECT_TRUE(agent.update("0.00"));
    agent.set_version("1.05");

    expect_refusal("ad-image publish 6.img web", "6.img is not signed: sign it with");
    make("ad-image publish --unsigned --min-firmware T-1 --max-firmware T-2 6.img web");
    EXPECT_THAT(read("web/update.ini"), HasSubstr("min_firmware=T-1\nmax_firmware=T-2\n"));
    EXPECT_FALSE(agent.update("1.05"));  // there is no platform here
    make("ad-image sign --key maker.key 6.img && ad-image publish 6.img web");
    EXPECT_TRUE(agent.update("1.05"));
    EXPECT_TRUE(read("data/zelADAgent.img") == read("6.img"));
    EXPECT_EQ(read("web/TileAd/v2"), R"({"tiles": 1})");
    EXPECT_EQ(names_in(folder / "web"), (Names{"AppsAd", "TileAd", "images", "update.ini"}));

    const std::string index = read("web/update.ini");
    expect_refusal("ad-image publish --apps-ad agent.conf 5.img web",
                   "agent.conf is not a JSON object");

    // Published again it is the same; a published file that has changed stops it.
    make("ad-image publish 6.img web");
    EXPECT_EQ(names_in(folder / "web/images").size(), 3U);
    make("for f in web/images/*-1.06-*.img; do echo x >>$f; done");
    expect_refusal("ad-image publish 6.img web", "has another content");
    EXPECT_EQ(read("web/update.ini"), index);
}

}  // namespace
