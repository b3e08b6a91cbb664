// The files that the library reads and writes: configuration, index, manifest.
#include "configuration_document.h"
#include "data_folder.h"
#include "device_state.h"
#include "manifest.h"
#include "settings.h"
#include "temporary_folder.h"
#include "update_index.h"
#include "version.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

using testing::HasSubstr;

TEST(Version, IsADecimalFraction) {
    for (const char* good : {"0", "1.05", "12", "0.00", "1234567890.12345678"})
        EXPECT_TRUE(is_version(good)) << good;
    for (const char* bad : {"", ".", "1.", ".5", "1.0.5", "-1", "+1", "1e3", "0x1", "nan", " 1",
                            "1.05\n", "1234567890.123456789"})
        EXPECT_FALSE(is_version(bad)) << bad;
}

TEST(Version, IsComparedAsAFloat) {
    struct Case {
        const char* version;
        const char* other;
        bool newer;
    };
    for (const Case& c : {Case{"1.06", "1.05", true},
                          {"1.05", "1.05", false},
                          {"1.050", "1.05", false},
                          {"1.05", "1.06", false},
                          {"2.9", "2.10", true},
                          {"2.10", "2.9", false},
                          {"0.01", "0.00", true},
                          {"0.00", "", false},
                          {"1", "abc", true},
                          {"1", "nan", false},
                          {"16777217", "16777216", false}})
        EXPECT_EQ(is_newer(c.version, c.other), c.newer) << c.version << " " << c.other;
}

TEST(Configuration, HasDefaultsForWhatItDoesNotSay) {
    const TemporaryFolder folder;
    std::string error;
    write_file(folder / "conf", "# a server\n[server]\nurl=http://localhost:80/base//\n");
    const auto settings = load_settings(folder / "conf", error);
    ASSERT_TRUE(settings) << error;
    EXPECT_EQ(settings->server_url, "http://localhost:80/base");
    EXPECT_EQ(settings->connect_timeout, 10);
    EXPECT_EQ(settings->stall_timeout, 20);
    EXPECT_EQ(settings->document_timeout, 30);
    EXPECT_EQ(settings->image_timeout, 900);
    EXPECT_TRUE(settings->verify);
    EXPECT_EQ(settings->authorities, "");

    write_file(folder / "conf",
               "[server]\nurl=file:///srv\nverify=false\nauthorities=/"
               "a.pem\n[timeouts]\nconnect=1\nstall=2\ndocument=3\nimage=4\n");
    const auto other = load_settings(folder / "conf", error);
    ASSERT_TRUE(other) << error;
    EXPECT_EQ(other->connect_timeout, 1);
    EXPECT_EQ(other->stall_timeout, 2);
    EXPECT_EQ(other->document_timeout, 3);
    EXPECT_EQ(other->image_timeout, 4);
    EXPECT_FALSE(other->verify);
    EXPECT_EQ(other->authorities, "/a.pem");
}

TEST(Configuration, NamesItsFaults) {
    struct Case {
        const char* text;
        const char* error;
    };
    const TemporaryFolder folder;
    for (const Case& c : {
             Case{"url=http://a\n", "does not start with a group"},
             Case{"", "url must be"},
             Case{"[server]\nurl=\n", "url must be"},
             Case{"[server]\nurl=http://\n", "url must be"},
             Case{"[server]\nurl=ftp://host/\n", "url must be"},
             Case{"[server]\nurl=file://host/path\n", "url must be"},
             Case{"[server]\nurl=http://host/?a=b\n", "url must be"},
             Case{"[server]\nurl=http://a\nverify=maybe\n", "[server] verify must be"},
             Case{"[server]\nurl=http://a\n[timeouts]\nstall=0\n", "[timeouts] stall must be"},
             Case{"[server]\nurl=http://a\n[timeouts]\nconnect=soon\n", "[timeouts] connect must"},
             Case{"[server]\nurl=http://a\n[timeouts]\nimage=99999\n", "[timeouts] image must be"},
         }) {
        std::string error;
        write_file(folder / "conf", c.text);
        EXPECT_FALSE(load_settings(folder / "conf", error)) << c.text;
        EXPECT_THAT(error, HasSubstr(folder / "conf: "));
        EXPECT_THAT(error, HasSubstr(c.error));
    }
    std::string error;
    EXPECT_FALSE(load_settings(folder / "none", error));
    EXPECT_THAT(error, HasSubstr(folder / "none: No such file"));
}

constexpr char SHA256[] = "0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789abcdef";

std::string index_text(const std::string& version, const std::string& size,
                       const std::string& sha256, const std::string& file) {
    return "[image]\nversion=" + version + "\nsize=" + size + "\nsha256=" + sha256 +
           "\nfile=" + file + "\n";
}

TEST(UpdateIndex, IsRead) {
    std::string error;
    const auto index = parse_update_index(index_text("1.06", "4096", SHA256, "a-1.06.img"), error);
    ASSERT_TRUE(index) << error;
    EXPECT_EQ(index->version, "1.06");
    EXPECT_EQ(index->size, 4096U);
    EXPECT_EQ(index->sha256, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
    EXPECT_EQ(index->file, "a-1.06.img");
}

TEST(UpdateIndex, IsRefusedForAnyValueThatIsNotRight) {
    const std::string text = index_text("1.06", "4096", SHA256, "a.img");
    std::string error;
    for (const std::string& bad : {std::string(),
                                   std::string("[image]\n"),
                                   std::string("<html></html>"),
                                   std::string(1000, '\0'),
                                   text.substr(0, text.size() / 2),
                                   index_text("1.0.6", "4096", SHA256, "a.img"),
                                   index_text("1.06", "0", SHA256, "a.img"),
                                   index_text("1.06", "-1", SHA256, "a.img"),
                                   index_text("1.06", "99999999999999999999", SHA256, "a.img"),
                                   index_text("1.06", "536870913", SHA256, "a.img"),
                                   index_text("1.06", "4 kB", SHA256, "a.img"),
                                   index_text("1.06", "1", "abc", "a.img"),
                                   index_text("1.06", "1", std::string(64, 'g'), "a.img"),
                                   index_text("1.06", "1", SHA256, ""),
                                   index_text("1.06", "1", SHA256, ".."),
                                   index_text("1.06", "1", SHA256, "../a.img"),
                                   index_text("1.06", "1", SHA256, "a/b.img"),
                                   index_text("1.06", "1", SHA256, "a%2fb.img"),
                                   index_text("1.06", "1", SHA256, "a.img?x"),
                                   text + "min_firmware=a\\nb\n",
                                   text + "max_firmware=" + std::string(256, '1') + "\n"}) {
        error.clear();
        EXPECT_FALSE(parse_update_index(bad, error)) << bad;
        EXPECT_NE(error, "") << bad;
    }
}

TEST(UpdateIndex, MayBeForSomeFirmwareOnly) {
    struct Case {
        const char* lines;
        const char* firmware;
        bool fits;
    };
    for (const Case& c : {Case{"", "", true},
                          {"min_firmware=T-1200.10\n", "T-1200.9", false},
                          {"min_firmware=T-1200.10\n", "T-1200.10", true},
                          {"min_firmware=T-1200.10\n", "T-1201", true},
                          {"min_firmware=T-1200.10\n", "", false},
                          {"max_firmware=T-1200.10\n", "T-1200.9", true},
                          {"max_firmware=T-1200.10\n", "T-1200.10", true},
                          {"max_firmware=T-1200.10\n", "T-1200.11", false},
                          {"max_firmware=T-1200.10\n", "", false},
                          {"min_firmware=2\nmax_firmware=10\n", "9", true},
                          {"min_firmware=2\nmax_firmware=10\n", "1", false}}) {
        std::string error;
        const auto index =
            parse_update_index(index_text("1.06", "1", SHA256, "a.img") + c.lines, error);
        ASSERT_TRUE(index) << error;
        EXPECT_EQ(firmware_mismatch(*index, c.firmware).empty(), c.fits) << c.lines << c.firmware;
    }
}

TEST(State, IsKeptWholeOrIsADevicesFirst) {
    const TemporaryFolder folder;
    std::string error;
    const auto data = DataFolder::open(folder / "", error);
    DeviceState state = read_state(*data);
    EXPECT_TRUE(state.bad.empty());
    state.installed_sha256 = "a1";
    state.installed_version = "1.06";
    state.installed_loaded = true;
    state.offered_version = "1.07";
    state.offered_firmware = " T=1;[x]\n\\";
    state.repairs = 2;
    for (int i = 0; i < 40; ++i) state.add_bad(std::to_string(i));
    state.add_bad("39");
    ASSERT_TRUE(write_state(*data, state, error)) << error;

    const DeviceState read = read_state(*data);
    EXPECT_EQ(read.installed_sha256, "a1");
    EXPECT_EQ(read.installed_version, "1.06");
    EXPECT_TRUE(read.installed_loaded);
    EXPECT_EQ(read.offered_version, "1.07");
    EXPECT_EQ(read.offered_firmware, " T=1;[x]\n\\");
    EXPECT_EQ(read.repairs, 2);
    EXPECT_EQ(read.bad.size(), 32U);
    EXPECT_TRUE(read.is_bad("39") && read.is_bad("8") && !read.is_bad("7"));

    write_file(folder / "state.ini", "torn");
    EXPECT_EQ(read_state(*data).offered_version, "");
}

TEST(ConfigurationDocument, IsNamedByItsPath) {
    EXPECT_EQ(document_name("/TileAd/v2"), "TileAd-v2.json");
    EXPECT_EQ(document_name("/AppsAd/v2"), "AppsAd-v2.json");
    for (const char* bad : {"", "/", "TileAd/v2", "/TileAd/", "/../etc", "/a b", "/a?b", "/a\n"})
        EXPECT_EQ(document_name(bad), "") << bad;
}

class Manifest : public testing::Test {
protected:
    std::string read(const std::string& text) const {
        write_file(folder / "Cache.xml", text);
        return read_cache_version(folder / "Cache.xml");
    }
    const TemporaryFolder folder;
};

TEST_F(Manifest, ReadsAsNoVersionUnlessItIsWhole) {
    EXPECT_EQ(read_cache_version(folder / "none.xml"), "0.00");
    const std::string whole = "<Cache><SoVersion>1.05</SoVersion></Cache>";
    EXPECT_EQ(read(whole), "1.05");
    EXPECT_EQ(read("<?xml version=\"1.0\"?>\n" + whole + "\n"), "1.05");
    testing::internal::CaptureStderr();
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(read(whole.substr(0, length)), "0.00") << length;
    EXPECT_EQ(read("<Cache/>"), "0.00");
    EXPECT_EQ(read("<Zel><SoVersion>1.05</SoVersion></Zel>"), "0.00");
    EXPECT_EQ(read("<Cache><Version>1.05</Version></Cache>"), "0.00");
    EXPECT_EQ(read("<Cache><SoVersion/></Cache>"), "0.00");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("ad-agent: manifest "));
}

TEST_F(Manifest, IsReplacedWhole) {
    std::string error;
    const auto data = DataFolder::open(folder / "", error);
    ASSERT_TRUE(data) << error;
    for (const char* version : {"1.05", "1.06", "a<b>&\"c\"", "", "1234567890.1234567890123"}) {
        ASSERT_TRUE(write_cache_version(*data, "Cache.xml", version, error)) << error;
        EXPECT_EQ(read_cache_version(folder / "Cache.xml"), *version ? version : "0.00");
        EXPECT_EQ(names_in(folder / ""), std::set<std::string>{"Cache.xml"});
    }
    struct stat status = {};
    ASSERT_EQ(stat((folder / "Cache.xml").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644);
}

TEST_F(Manifest, DoesNotFollowALinkThatWasPutInItsWay) {
    write_file(folder / "victim", "precious");
    std::filesystem::create_symlink(folder / "victim", folder / "Cache.xml.part");
    std::filesystem::create_symlink(folder / "victim", folder / "Cache.xml");
    std::string error;
    const auto data = DataFolder::open(folder / "", error);
    ASSERT_TRUE(write_cache_version(*data, "Cache.xml", "1.05", error)) << error;
    EXPECT_EQ(read_file(folder / "victim"), "precious");
    EXPECT_EQ(read_cache_version(folder / "Cache.xml"), "1.05");
}

}  // namespace
}  // namespace ad_agent
