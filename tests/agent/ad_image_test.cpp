// Making images, signing and publishing them, up to an agent that takes them.
#include "agent.h"
#include "temporary_folder.h"

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

#define PACK AD_IMAGE " pack --resources res "

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

    /** Runs a command line that must not fail. */
    void make(const std::string& command) { ASSERT_EQ(run(command), 0) << command << output; }

    void pack(const std::string& version, const std::string& image,
              const std::string& format = "squashfs") {
        make(PACK "--agent agent.so --player player.so --version '" + version + "' --output " +
             image + " --format " + format);
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
        make(AD_IMAGE " keygen --no-password --key " + name + ".key --public " + name + ".pub");
    }

    const TemporaryFolder folder;
    std::string output;
};

TEST_F(AdImage, IsTheSameForTheSameInput) {
    for (const std::string format : {"erofs", "squashfs"}) {
        pack("1.05", "one.img", format);
        // Another order, other modes and times, another environment.
        make(
            "mv res old && mkdir -p res/sub && cp old/sub/b.ini res/sub && cp old/a.ini res"
            " && rm -r old && chmod 0777 agent.so && touch -d @1000 res/a.ini");
        make("umask 077; export SOURCE_DATE_EPOCH=5; " PACK
             "--agent agent.so --player player.so"
             " --version 1.05 --output two.img --format " +
             format);
        EXPECT_TRUE(read_file(folder / "one.img") == read_file(folder / "two.img")) << format;
    }
    make("unsquashfs -lln one.img");
    for (const char* entry : {"-rw-r--r-- 0/0", "1970-01-01 00:00 squashfs-root/libad-agent-fwk.so",
                              "drwxr-xr-x 0/0", "squashfs-root/adplayer/res/sub/b.ini"})
        EXPECT_THAT(output, HasSubstr(entry));
    make("unsquashfs -cat one.img zelADAgent.xml");
    EXPECT_EQ(output, "<Zel><Version>1.05</Version></Zel>\n");
}

TEST_F(AdImage, RefusesWhatNoDeviceCouldUse) {
    const std::string pack_old = PACK "--output old.img --version ";
    const std::string good = pack_old + "1.05 --agent agent.so --player player.so";
    write_file(folder / "old.img", "old");
    for (const char* version : {"1.0.5", "v1", "1.", "1,05", "12345678901234567890"})
        expect_refusal(pack_old + version + " --agent agent.so --player player.so",
                       "is not a decimal fraction");
    for (const char* target : {"/etc/passwd", "../x", "sub/../../x", "sub/../a.ini"}) {
        std::filesystem::create_symlink(target, folder / "res/link");
        expect_refusal(good, "adplayer/res/link is a link that leads out of");
        std::filesystem::remove(folder / "res/link");
    }
    make("mkfifo res/pipe");
    expect_refusal(good, "adplayer/res/pipe is neither file, directory nor link");
    std::filesystem::remove(folder / "res/pipe");

    std::string other = read_file(folder / "player.so");
    other.replace(18, 2, "\x28\0", 2);  // e_machine: ARM
    write_file(folder / "other.so", other);
    for (const auto& [libraries, reason] :
         Cases{{"none.so --player player.so", "none.so is not a file"},
               {"res/a.ini --player player.so", "is not a shared library"},
               {"agent.so --player res/a.ini", "is not a shared library"},
               {"player.so --player player.so", "player.so does not export ad_agent_init ad_agent"},
               {"agent.so --player other.so", "other.so is for arm, not for"},
               {"agent.so --player player.so --architecture arm", ", not for arm"}})
        expect_refusal(pack_old + "1.05 --agent " + libraries, reason);

    for (const char* wrong : {" publish agent.so", " frobnicate", " pack --version 1.05"})
        EXPECT_EQ(run(AD_IMAGE + std::string(wrong)), 2);
    expect_refusal(AD_IMAGE " publish --unsigned player.so web", "player.so is no image");
    expect_refusal(AD_IMAGE " publish --min-firmware 'a b' old.img web", "is not a firmware");

    EXPECT_EQ(read_file(folder / "old.img"), "old");
    EXPECT_EQ(names_in(folder / ""),
              (Names{"agent.so", "old.img", "other.so", "player.so", "res", "web"}));
    EXPECT_TRUE(names_in(folder / "web").empty());
}

TEST_F(AdImage, KeepsLinksThatStayInside) {
    std::filesystem::create_symlink("../a.ini", folder / "res/sub/up");
    std::filesystem::create_symlink("./sub//b.ini", folder / "res/down");
    for (const std::string format : {"squashfs", "erofs"}) {
        pack("1.05", format, format);
        make(AD_IMAGE " show " + format);
        for (const std::string& line :
             {"format       " + format + "\n", std::string("version      1.05\n"),
              std::string("signature    none\n"), std::string("contents     5 files"),
              std::string("  adplayer/res/sub/up\n"), std::string("  adplayer/res/down\n"),
              std::string("         1  adplayer/res/a.ini\n")})
            EXPECT_THAT(output, HasSubstr(line));
    }
}

/** The trailer of a signed image. */
std::string trailer(const std::string& signature) {
    return signature + "ADIMGSIG" + static_cast<char>(signature.size() & 255) +
           static_cast<char>(signature.size() >> 8) + std::string("\0\0\1\0\0\0", 6);
}

class SignedImage : public AdImage {
protected:
    SignedImage() { make_keys("maker"); }

    void sign(const std::string& image, const std::string& format = "squashfs") {
        pack("1.05", image, format);
        make(AD_IMAGE " sign --key maker.key " + image);
    }
};

TEST_F(SignedImage, HoldsWhatMinisignMakes) {
    EXPECT_EQ(std::filesystem::status(folder / "maker.key").permissions(),
              std::filesystem::perms(0600));
    expect_refusal(AD_IMAGE " keygen --no-password --key maker.key --public new.pub",
                   "maker.key is there already");

    for (const std::string format : {"squashfs", "erofs"}) {
        SCOPED_TRACE(format);
        pack("1.05", "plain.img", format);
        sign("signed.img", format);
        const std::string plain = read_file(folder / "plain.img");
        const std::string image = read_file(folder / "signed.img");
        ASSERT_GT(image.size(), plain.size() + 16);
        const std::string signature = image.substr(plain.size(), image.size() - plain.size() - 16);
        EXPECT_TRUE(image == plain + trailer(signature));
        write_file(folder / "signature", signature);
        make("minisign -VHQm plain.img -p maker.pub -x signature");
        EXPECT_EQ(output, "version:1.05\n");
        make(AD_IMAGE " verify --key maker.pub signed.img");
    }
    // minisign itself tells the number, without its leading zeros.
    make("sed -n '1s/.* //p' maker.pub");
    const std::string key = output.substr(0, output.size() - 1);
    make(AD_IMAGE " show signed.img");
    EXPECT_THAT(output, HasSubstr("signature    of key " + key + ","));
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
    pack("1.06", "plain.img");
    for (const auto& [comment, reason] :
         Cases{{"version:1.05", "holds version 1.06, but its signature is for 1.05"},
               {"something", "versions: sign it with"},
               {"version:1.06 version:1.05", "versions: sign it with"}}) {
        make("minisign -S -s maker.key -m plain.img -x s -t '" + comment + "'");
        expect_bad(read_file(folder / "plain.img") + trailer(read_file(folder / "s")), reason);
        expect_refusal(AD_IMAGE " publish bad.img web", reason);
    }
    EXPECT_TRUE(names_in(folder / "web").empty());
}

TEST_F(SignedImage, IsPublishedForAgentsToTake) {
    sign("5.img");
    pack("1.06", "6.img");
    write_file(folder / "tile.json", R"({"tiles": 1})");
    write_file(folder / "agent.conf", "[server]\nurl=file://" + (folder / "web") + "\n");
    const ad_agent::Agent agent({folder / "agent.conf", folder / "data", folder / "stored",
                                 folder / "updatable", folder / "builtin", folder / "manifest"});

    make(AD_IMAGE " publish --key maker.pub --tile-ad tile.json 5.img web");
    EXPECT_TRUE(agent.fetch_configuration("/TileAd/v2"));
    EXPECT_TRUE(agent.fetch_configuration("/AppsAd/v2"));
    EXPECT_EQ(read_file(folder / "data/TileAd-v2.json"), R"({"tiles": 1})");
    EXPECT_TRUE(agent.update("0.00"));
    agent.set_version("1.05");
    EXPECT_FALSE(agent.update("1.05"));

    expect_refusal(AD_IMAGE " publish 6.img web", "6.img is not signed: sign it with");
    make(AD_IMAGE " publish --unsigned --min-firmware T-1 --max-firmware T-2 6.img web");
    EXPECT_THAT(read_file(folder / "web/update.ini"),
                HasSubstr("min_firmware=T-1\nmax_firmware=T-2\n"));
    EXPECT_FALSE(agent.update("1.05"));  // there is no platform here
    make(AD_IMAGE " sign --key maker.key 6.img");
    make(AD_IMAGE " publish 6.img web");
    EXPECT_TRUE(agent.update("1.05"));
    EXPECT_TRUE(read_file(folder / "data/zelADAgent.img") == read_file(folder / "6.img"));
    EXPECT_EQ(read_file(folder / "web/TileAd/v2"), R"({"tiles": 1})");
    EXPECT_EQ(names_in(folder / "web"), (Names{"AppsAd", "TileAd", "images", "update.ini"}));

    const std::string index = read_file(folder / "web/update.ini");
    write_file(folder / "page.html", "<html></html>");
    expect_refusal(AD_IMAGE " publish --apps-ad page.html 5.img web",
                   "page.html is not a JSON object");

    // Published again it is the same; a published file that has changed stops it.
    make(AD_IMAGE " publish 6.img web");
    EXPECT_EQ(names_in(folder / "web/images").size(), 3U);
    make("for f in web/images/*-1.06-*.img; do echo x >>$f; done");
    expect_refusal(AD_IMAGE " publish 6.img web", "has another content");
    EXPECT_EQ(read_file(folder / "web/update.ini"), index);
}

}  // namespace
