// The files that the library reads and writes: configuration, index, manifest.
#include "configuration_document.h"
#include "data_folder.h"
#include "device_state.h"
#include "manifest.h"
#include "settings.h"
#include "temporary_folder.h"
#include "update_index.h"
#include "version.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ad_agent {
namespace {

using testing::HasSubstr;

TEST(Version, IsADecimalFractionComparedAsAFloat) {
    for (const char* good : {"0", "1.05", "12", "0.00", "1234567890.12345678"})
        EXPECT_TRUE(is_version(good)) << good;
    for (const char* bad : {"", ".", "1.", ".5", "1.0.5", "-1", "+1", "1e3", "0x1", "nan", " 1",
                            "1.05\n", "1234567890.123456789"})
        EXPECT_FALSE(is_version(bad)) << bad;

    for (const auto& [newer, older] : Cases{
             {"1.06", "1.05"}, {"2.9", "2.10"}, {"0.01", "0.00"}, {"1", "abc"}, {"2.9", "2.899"}}) {
        EXPECT_TRUE(is_newer(newer, older)) << newer;
        EXPECT_FALSE(is_newer(older, newer)) << newer;
    }
    for (const auto& [version, same] :
         Cases{{"1.05", "1.05"}, {"1.050", "1.05"}, {"0.00", ""}, {"16777217", "16777216"}})
        EXPECT_FALSE(is_newer(version, same)) << version;
    EXPECT_FALSE(is_newer("1", "nan"));
}

class Files : public testing::Test {
protected:
    const TemporaryFolder folder;
    std::string error;
    const DataFolder data = *DataFolder::open(folder / "", error);
};

TEST_F(Files, ConfigurationHasDefaults) {
    const auto read = [&](const std::string& text) {
        write_file(folder / "conf", text);
        const Settings s = load_settings(folder / "conf", error).value_or(Settings());
        return std::make_tuple(s.server_url, s.connect_timeout, s.stall_timeout, s.document_timeout,
                               s.image_timeout, s.verify, s.authorities);
    };
    EXPECT_EQ(read("# a server\n[server]\nurl=http://localhost:80/base//\n"),
              std::make_tuple("http://localhost:80/base", 10, 20, 30, 900, true, ""));
    EXPECT_EQ(read("[server]\nurl=file:///srv\nverify=false\nauthorities=/a.pem\n"
                   "[timeouts]\nconnect=1\nstall=2\ndocument=3\nimage=4\n"),
              std::make_tuple("file:///srv", 1, 2, 3, 4, false, "/a.pem"));
}

TEST_F(Files, ConfigurationNamesItsFaults) {
    for (const auto& [text, reason] :
         Cases{{"url=http://a\n", "does not start with a group"},
               {"", "url must be"},
               {"[server]\nurl=\n", "url must be"},
               {"[server]\nurl=http://\n", "url must be"},
               {"[server]\nurl=ftp://host/\n", "url must be"},
               {"[server]\nurl=file://host/path\n", "url must be"},
               {"[server]\nurl=http://host/?a=b\n", "url must be"},
               {"[server]\nurl=http://a\nverify=maybe\n", "[server] verify must be"},
               {"[server]\nurl=http://a\n[timeouts]\nstall=0\n", "[timeouts] stall must be"},
               {"[server]\nurl=http://a\n[timeouts]\nconnect=soon\n", "[timeouts] connect must"},
               {"[server]\nurl=http://a\n[timeouts]\nimage=99999\n", "[timeouts] image must be"}}) {
        write_file(folder / "conf", text);
        EXPECT_FALSE(load_settings(folder / "conf", error)) << text;
        EXPECT_THAT(error, HasSubstr(folder / "conf: "));
        EXPECT_THAT(error, HasSubstr(reason));
    }
}

const std::string INDEX =
    "[image]\nversion=1.06\nsize=4096\nfile=a-1.06.img\n"
    "sha256=0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789abcdef\n";

TEST(UpdateIndex, IsReadUnlessAnyValueIsNotRight) {
    std::string error;
    const auto index = parse_update_index(INDEX, error);
    ASSERT_TRUE(index) << error;
    EXPECT_EQ(index->version, "1.06");
    EXPECT_EQ(index->size, 4096U);
    EXPECT_EQ(index->sha256, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
    EXPECT_EQ(index->file, "a-1.06.img");

    // The last one of a key counts.
    Names bad = {"", "[image]\n", "<html></html>", std::string(1000, '\0'), INDEX.substr(0, 60)};
    for (const char* line :
         {"version=1.0.6", "size=0", "size=-1", "size=99999999999999999999", "size=536870913",
          "size=4 kB", "sha256=abc", "file=", "file=..", "file=../a.img", "file=a/b.img",
          "file=a%2fb.img", "file=a.img?x", "min_firmware=a\\nb"})
        bad.insert(INDEX + line + "\n");
    bad.insert(INDEX + "sha256=" + std::string(64, 'g') + "\n");
    bad.insert(INDEX + "max_firmware=" + std::string(256, '1') + "\n");
    for (const std::string& text : bad) {
        error.clear();
        EXPECT_FALSE(parse_update_index(text, error)) << text;
        EXPECT_NE(error, "") << text;
    }
}

TEST(UpdateIndex, MayBeForSomeFirmwareOnly) {
    struct Case {
        const char* lines;
        std::vector<const char*> fitting;
        std::vector<const char*> others;
    };
    for (const Case& c :
         {Case{"", {"", "T-1"}, {}},
          {"min_firmware=T-1200.10\n", {"T-1200.10", "T-1201"}, {"", "T-1200.9"}},
          {"max_firmware=T-1200.10\n", {"T-1200.9", "T-1200.10"}, {"", "T-1200.11"}},
          {"min_firmware=2\nmax_firmware=10\n", {"9"}, {"1", "11"}}}) {
        std::string error;
        const auto index = parse_update_index(INDEX + c.lines, error);
        ASSERT_TRUE(index) << error;
        for (const char* firmware : c.fitting)
            EXPECT_EQ(firmware_mismatch(*index, firmware), "") << c.lines;
        for (const char* firmware : c.others)
            EXPECT_NE(firmware_mismatch(*index, firmware), "") << c.lines << firmware;
    }
}

TEST_F(Files, StateIsKeptWholeOrIsADevicesFirst) {
    DeviceState state = read_state(data);
    EXPECT_TRUE(state.bad.empty());
    state.installed_sha256 = "a1";
    state.installed_version = "1.06";
    state.installed_loaded = true;
    state.offered_version = "1.07";
    state.offered_firmware = " T=1;[x]\n\\";
    state.repairs = 2;
    for (int i = 0; i < 40; ++i) state.add_bad(std::to_string(i));
    state.add_bad("39");
    ASSERT_TRUE(write_state(data, state, error)) << error;

    const DeviceState read = read_state(data);
    const auto all = [](const DeviceState& s) {
        return std::tie(s.installed_sha256, s.installed_version, s.installed_loaded,
                        s.offered_version, s.offered_firmware, s.repairs, s.bad);
    };
    EXPECT_EQ(all(read), all(state));
    EXPECT_EQ(read.bad.size(), 32U);
    EXPECT_TRUE(read.is_bad("39") && read.is_bad("8") && !read.is_bad("7"));

    write_file(folder / "state.ini", "torn");
    EXPECT_EQ(read_state(data).offered_version, "");
}

TEST(ConfigurationDocument, IsNamedByItsPath) {
    EXPECT_EQ(document_name("/TileAd/v2"), "TileAd-v2.json");
    for (const char* bad : {"", "/", "TileAd/v2", "/TileAd/", "/../etc", "/a b", "/a?b", "/a\n"})
        EXPECT_EQ(document_name(bad), "") << bad;
}

TEST_F(Files, ManifestReadsAsNoVersionUnlessItIsWhole) {
    const auto read = [&](const std::string& text) {
        write_file(folder / "Cache.xml", text);
        return read_cache_version(folder / "Cache.xml");
    };
    EXPECT_EQ(read_cache_version(folder / "none.xml"), "0.00");
    const std::string whole = "<Cache><SoVersion>1.05</SoVersion></Cache>";
    EXPECT_EQ(read(whole), "1.05");
    EXPECT_EQ(read("<?xml version=\"1.0\"?>\n" + whole + "\n"), "1.05");
    testing::internal::CaptureStderr();
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(read(whole.substr(0, length)), "0.00") << length;
    for (const char* other :
         {"<Cache/>", "<Zel><SoVersion>1.05</SoVersion></Zel>",
          "<Cache><Version>1.05</Version></Cache>", "<Cache><SoVersion/></Cache>"})
        EXPECT_EQ(read(other), "0.00") << other;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("ad-agent: manifest "));
}

TEST_F(Files, ManifestIsReplacedWholeAndThroughNoLink) {
    write_file(folder / "victim", "precious");
    std::filesystem::create_symlink(folder / "victim", folder / "Cache.xml.part");
    std::filesystem::create_symlink(folder / "victim", folder / "Cache.xml");
    for (const char* version : {"1.05", "1.06", "a<b>&\"c\"", "", "1234567890.1234567890123"}) {
        ASSERT_TRUE(write_cache_version(data, "Cache.xml", version, error)) << error;
        EXPECT_EQ(read_cache_version(folder / "Cache.xml"), *version ? version : "0.00");
        EXPECT_EQ(names_in(folder / ""), (Names{"Cache.xml", "victim"}));
    }
    EXPECT_EQ(read_file(folder / "victim"), "precious");
    EXPECT_EQ(std::filesystem::status(folder / "Cache.xml").permissions(),
              std::filesystem::perms(0644));
}

}  // namespace
}  // namespace ad_agent
