// Making images and publishing them, up to an agent that takes them.
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

class AdImage : public testing::Test {
protected:
    AdImage() {
        write_file(folder / "agent.so", "the agent");
        write_file(folder / "player.so", "the player");
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

    int pack(const std::string& version, const std::string& image) {
        return run(AD_IMAGE " pack --version '" + version +
                   "' --agent agent.so --player player.so --resources res --output " + image);
    }

    const TemporaryFolder folder;
    std::string output;
};

TEST_F(AdImage, IsTheSameForTheSameInput) {
    ASSERT_EQ(pack("1.05", "one.img"), 0) << output;
    chmod((folder / "agent.so").c_str(), 0777);
    const utimbuf long_ago = {1000, 1000};
    utime((folder / "res/a.ini").c_str(), &long_ago);
    ASSERT_EQ(run("umask 077; export SOURCE_DATE_EPOCH=5; " AD_IMAGE
                  " pack --version 1.05 --agent agent.so --player player.so"
                  " --resources res --output two.img"),
              0)
        << output;
    EXPECT_TRUE(read_file(folder / "one.img") == read_file(folder / "two.img"));

    ASSERT_EQ(run("unsquashfs -lln one.img"), 0);
    for (const char* entry : {"-rw-r--r-- 0/0                       9 1970-01-01 00:00 "
                              "squashfs-root/libad-agent-fwk.so",
                              "-rw-r--r-- 0/0                      10 1970-01-01 00:00 "
                              "squashfs-root/libad-player-fwk.so",
                              "drwxr-xr-x 0/0", "squashfs-root/adplayer/res/sub/b.ini"})
        EXPECT_THAT(output, HasSubstr(entry));
    ASSERT_EQ(run("unsquashfs -cat one.img zelADAgent.xml"), 0);
    EXPECT_EQ(output, "<Zel><Version>1.05</Version></Zel>\n");
}

TEST_F(AdImage, RefusesWhatNoDeviceCouldUse) {
    write_file(folder / "old.img", "old");
    for (const char* version : {"", "1.0.5", "v1", "1.", "1,05", "12345678901234567890"}) {
        EXPECT_NE(pack(version, "old.img"), 0) << version;
        EXPECT_THAT(output, HasSubstr("ad-image: ")) << version;
    }
    std::filesystem::create_symlink("/etc/passwd", folder / "res/link");
    EXPECT_EQ(pack("1.05", "old.img"), 1);
    EXPECT_THAT(output, HasSubstr("adplayer/res/link is neither a file nor a directory"));
    std::filesystem::remove(folder / "res/link");
    std::filesystem::remove(folder / "agent.so");
    EXPECT_EQ(pack("1.05", "old.img"), 1);
    EXPECT_THAT(output, HasSubstr("agent library agent.so is not a file"));
    EXPECT_EQ(run(AD_IMAGE " publish agent.so"), 2);
    EXPECT_EQ(run(AD_IMAGE " frobnicate"), 2);
    EXPECT_EQ(run(AD_IMAGE " publish player.so web"), 1);
    EXPECT_THAT(output, HasSubstr("player.so is no image"));

    EXPECT_EQ(read_file(folder / "old.img"), "old");
    EXPECT_EQ(names_in(folder / ""), (std::set<std::string>{"old.img", "player.so", "res"}));
}

TEST_F(AdImage, IsPublishedForAgentsToTake) {
    ASSERT_EQ(pack("1.05", "5.img"), 0) << output;
    ASSERT_EQ(pack("1.06", "6.img"), 0) << output;
    write_file(folder / "tile.json", R"({"tiles": 1})");
    write_file(folder / "agent.conf", "[server]\nurl=file://" + (folder / "web") + "\n");
    std::filesystem::create_directory(folder / "data");
    const ad_agent::Agent agent(folder / "agent.conf", folder / "data");

    ASSERT_EQ(run(AD_IMAGE " publish --tile-ad tile.json 5.img web"), 0) << output;
    EXPECT_TRUE(agent.fetch_configuration("/TileAd/v2"));
    EXPECT_TRUE(agent.fetch_configuration("/AppsAd/v2"));
    EXPECT_EQ(read_file(folder / "data/TileAd-v2.json"), R"({"tiles": 1})");
    EXPECT_TRUE(agent.update("0.00"));
    EXPECT_FALSE(agent.update("1.05"));

    ASSERT_EQ(run(AD_IMAGE " publish 6.img web"), 0) << output;
    EXPECT_TRUE(agent.update("1.05"));
    EXPECT_TRUE(read_file(folder / "data/zelADAgent.img") == read_file(folder / "6.img"));
    EXPECT_EQ(read_file(folder / "web/TileAd/v2"), R"({"tiles": 1})");
    EXPECT_EQ(names_in(folder / "web"),
              (std::set<std::string>{"AppsAd", "TileAd", "images", "update.ini"}));

    write_file(folder / "page.html", "<html></html>");
    EXPECT_EQ(run(AD_IMAGE " publish --apps-ad page.html 5.img web"), 1);
    EXPECT_THAT(output, HasSubstr("page.html is not a JSON object"));
    EXPECT_THAT(read_file(folder / "web/update.ini"), HasSubstr("version=1.06"));

    // Published again it is the same; a published file that has changed stops it.
    const std::string index = read_file(folder / "web/update.ini");
    ASSERT_EQ(run(AD_IMAGE " publish 6.img web"), 0) << output;
    EXPECT_EQ(names_in(folder / "web/images").size(), 2U);
    ASSERT_EQ(run("echo x | tee -a web/images/zelADAgent-1.06-*.img"), 0);
    EXPECT_EQ(run(AD_IMAGE " publish 6.img web"), 1);
    EXPECT_THAT(output, HasSubstr("has another content"));
    EXPECT_EQ(read_file(folder / "web/update.ini"), index);
}

}  // namespace
