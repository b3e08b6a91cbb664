// The files that the library reads and writes: configuration, index, manifest.
#include "configuration_document.h"
#include "data_directory.h"
#include "device_state.h"
#include "files.h"
#include "manifest.h"
#include "settings.h"
#include "update_index.h"
#include "version.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ad_agent {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST(Version, IsADecimalFractionComparedAsAFloat) {
    for (const char* good : {"0", "1.05", "1234567890.12345678"})
        EXPECT_TRUE(is_version(good)) << good;
    for (const char* bad :
         {"", ".", "1.", ".5", "1.0.5", "-1", "0x1", " 1", "1.05\n", "1234567890.123456789"})
        EXPECT_FALSE(is_version(bad)) << bad;

    for (const auto& [newer, older] : Cases{{"1.06", "1.05"}, {"2.9", "2.10"}, {"1", "abc"}}) {
        EXPECT_TRUE(is_newer(newer, older)) << newer;
        EXPECT_FALSE(is_newer(older, newer)) << newer;
    }
    for (const auto& [version, same] : Cases{{"1.050", "1.05"}, {"16777217", "16777216"}})
        EXPECT_FALSE(is_newer(version, same)) << version;
}

class Files : public testing::Test {
protected:
    const TemporaryFolder folder;
    std::string error;
    const DataDirectory data = *DataDirectory::open(folder / "");
};

TEST_F(Files, ConfigurationHasDefaultsAndNamesItsFaults) {
    const auto read = [&](const std::string& text) {
        write_file(folder / "conf", text);
        const auto loaded = load_settings(folder / "conf");
        error = loaded ? "" : loaded.error().message;
        const Settings s = loaded.value_or(Settings());
        return std::make_tuple(s.server_url, s.connect_timeout, s.stall_timeout, s.document_timeout,
                               s.image_timeout, s.verify, s.authorities);
    };
    EXPECT_EQ(read("# a server\n[server]\nurl=http://localhost:80/base//\n"),
              std::make_tuple("http://localhost:80/base", 10, 20, 30, 900, true, ""));
    EXPECT_EQ(read("[server]\nurl=file:///srv\nverify=false\nauthorities=/a.pem\n"
                   "[timeouts]\nconnect=1\nstall=2\ndocument=3\nimage=4\n"),
              std::make_tuple("file:///srv", 1, 2, 3, 4, false, "/a.pem"));

    for (const auto& [text, reason] :
         Cases{{"", "[server] url must be"},
               {"[server]\nurl=http://\n", "url must be"},
               {"[server]\nurl=ftp://host/\n", "url must be"},
               {"[server]\nurl=file://host/path\n", "url must be"},
               {"[server]\nurl=http://host/?a=b\n", "url must be"},
               {"[server]\nurl=http://a\nverify=maybe\n", "[server] verify must be"},
               {"[server]\nurl=http://a\n[timeouts]\nstall=0\n", "[timeouts] stall must be"},
               {"[server]\nurl=http://a\n[timeouts]\nconnect=soon\n", "[timeouts] connect must"},
               {"[server]\nurl=http://a\n[timeouts]\nimage=86401\n", "[timeouts] image must be"}}) {
        read(text);
        EXPECT_THAT(error, StartsWith("invalid configuration " + folder / "conf: ")) << text;
        EXPECT_THAT(error, HasSubstr(reason));
    }
}

const std::string INDEX =
    "[image]\nversion=1.06\nsize=4096\nfile=a-1.06.img\n"
    "sha256=0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789abcdef\n";

TEST(UpdateIndex, IsReadUnlessAnyValueIsNotRight) {
    const auto index = parse_update_index(INDEX);
    ASSERT_TRUE(index);
    EXPECT_EQ(index->version, "1.06");
    EXPECT_EQ(index->size, 4096U);
    EXPECT_EQ(index->sha256, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
    EXPECT_EQ(index->file, "a-1.06.img");

    const std::vector<std::string> bad = {"version=1.0.6",
                                          "size=0",
                                          "size=-1",
                                          "size=536870913",
                                          "sha256=abc",
                                          "file=",
                                          "file=.a",
                                          "file=a%2fb",
                                          "min_firmware=a\\nb",
                                          "torn",
                                          "sha256=" + std::string(64, 'g'),
                                          "max_firmware=" + std::string(256, '1')};
    // The last one of a key counts.
    for (const std::string& line : bad) {
        EXPECT_FALSE(parse_update_index(INDEX + line)) << line;
    }
}

TEST(UpdateIndex, MayBeForSomeFirmwareOnly) {
    const auto fits = [](const std::string& lines, const std::string& firmware) {
        return !firmware_mismatch(*parse_update_index(INDEX + lines), firmware);
    };
    const std::string from = "min_firmware=T-1200.9\n";
    const std::string to = "max_firmware=T-1200.10\n";
    for (const std::string& lines : {from, to, from + to}) {
        EXPECT_TRUE(fits(lines, "T-1200.9") && fits(lines, "T-1200.10")) << lines;
        EXPECT_FALSE(fits(lines, "")) << lines;
        EXPECT_EQ(fits(lines, "T-1200.8"), lines == to) << lines;
        EXPECT_EQ(fits(lines, "T-1201.1"), lines == from) << lines;
    }
    EXPECT_TRUE(fits("", ""));
}

TEST_F(Files, StateIsKeptWholeOrIsADevicesFirst) {
    DeviceState state = {"a1", "1.06", true, "1.07", " T=1;[x]\n\\", 2, {}};
    for (int i = 0; i < 40; ++i) state.add_bad(std::to_string(i));
    state.add_bad("39");
    ASSERT_TRUE(write_state(data, state));

    const DeviceState read = read_state(data);
    const auto all = [](const DeviceState& s) {
        return std::tie(s.installed_sha256, s.installed_version, s.installed_loaded,
                        s.offered_version, s.offered_firmware, s.repairs, s.bad);
    };
    EXPECT_EQ(all(read), all(state));
    EXPECT_EQ(read.bad.size(), 32U);
    EXPECT_THAT(read_file(folder / "state.ini"), HasSubstr("[bad]\nsha256=8;9;"));

    write_file(folder / "state.ini", "torn");
    EXPECT_EQ(read_state(data).offered_version, "");
}

TEST(ConfigurationDocument, IsNamedByItsPath) {
    EXPECT_EQ(document_name("/TileAd/v2"), "TileAd-v2.json");
    for (const char* bad : {"", "/", "TileAd/v2", "/TileAd/", "/../etc", "/a b", "/a?b", "/a\n"})
        EXPECT_EQ(document_name(bad), "") << bad;
}

TEST_F(Files, ManifestReadsAsNoVersionUnlessItIsWhole) {
    const std::string whole = "<Cache><SoVersion>1.05</SoVersion></Cache>";
    Names torn = {"<Zel><SoVersion>1.05</SoVersion></Zel>",
                  "<Cache><Version>1.05</Version></Cache>", "<Cache><SoVersion/></Cache>"};
    for (std::size_t length = 0; length < whole.size(); ++length)
        torn.insert(whole.substr(0, length));
    testing::internal::CaptureStderr();
    for (const std::string& text : torn) {
        write_file(folder / "zelADAgentCache.xml", text);
        EXPECT_EQ(read_cache_version(folder / "zelADAgentCache.xml"), "0.00") << text;
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("ad-agent: failed to parse manifest "));
    write_file(folder / "zelADAgentCache.xml", "<?xml version=\"1.0\"?>\n" + whole + "\n");
    EXPECT_EQ(read_cache_version(folder / "zelADAgentCache.xml"), "1.05");
}

TEST_F(Files, ManifestIsReplacedWholeAndThroughNoLink) {
    write_file(folder / "victim", "precious");
    std::filesystem::create_symlink(folder / "victim", folder / "zelADAgentCache.xml.part");
    std::filesystem::create_symlink(folder / "victim", folder / "zelADAgentCache.xml");
    for (const char* version : {"a<b>&\"c\"", "", "1234567890.1234567890123"}) {
        ASSERT_TRUE(write_cache_version(data, version));
        EXPECT_EQ(read_cache_version(folder / "zelADAgentCache.xml"), *version ? version : "0.00");
        EXPECT_EQ(names_in(folder / ""), (Names{"zelADAgentCache.xml", "victim"}));
    }
    EXPECT_EQ(read_file(folder / "victim"), "precious");
    EXPECT_EQ(std::filesystem::status(folder / "zelADAgentCache.xml").permissions(),
              std::filesystem::perms(0644));
}

}  // namespace
}  // namespace ad_agent
