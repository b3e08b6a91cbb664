// The values that the library reads: versions, the configuration and the index.
#include "device_state.h"
#include "files.h"
#include "manifest.h"
#include "settings.h"
#include "update_index.h"
#include "version.h"

#include <tuple>

#include <gtest/gtest.h>

namespace ad_agent {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(Version, IsADecimalFractionComparedAsAFloat) {
    for (const char* good : {"0", "1.05", "1234567890.12345678"}) {
        EXPECT_TRUE(is_version(good)) << good;
    }
    for (const char* bad : {"", ".", "1.", ".5", "1.0.5", "-1", " 1", "1234567890.123456789"}) {
        EXPECT_FALSE(is_version(bad)) << bad;
    }
    for (const auto& [newer, older] : Pairs{{"1.06", "1.05"}, {"2.9", "2.10"}, {"1", "abc"}}) {
        EXPECT_TRUE(is_newer(newer, older) && !is_newer(older, newer)) << newer;
    }
    EXPECT_FALSE(is_newer("1.050", "1.05") || is_newer("16777217", "16777216"));
}

TEST(Configuration, HasDefaults) {
    const test_support::TemporaryDirectory directory;
    const std::string path = directory / "conf";
    const auto read = [&](const std::string& text) {
        test_support::write_file(path, text);
        const Settings s = *load_settings(path);
        return std::make_tuple(s.server_url, s.connect_timeout, s.stall_timeout, s.document_timeout,
                               s.image_timeout, s.verify, s.authorities);
    };
    EXPECT_EQ(read("# a server\n[server]\nurl=http://localhost:80/base//\n"),
              std::make_tuple("http://localhost:80/base", 10, 20, 30, 900, true, ""));
    EXPECT_EQ(read("[server]\nurl=file:///srv\nverify=false\nauthorities=/a.pem\n"
                   "[timeouts]\nconnect=1\nstall=2\ndocument=3\nimage=86400\n"),
              std::make_tuple("file:///srv", 1, 2, 3, 86400, false, "/a.pem"));
}

const std::string index_text =
    "[image]\nversion=1.06\nsize=4096\nfile=a-1.06.img\n"
    "sha256=0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789abcdef\n";

TEST(UpdateIndex, IsRejectedIfAnyValueIsInvalid) {
    const UpdateIndex index = parse_update_index(index_text).value();
    EXPECT_EQ(std::tie(index.version, index.size, index.file),
              std::make_tuple("1.06", 4096U, "a-1.06.img"));
    EXPECT_EQ(index.sha256, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");

    // The last value of a key counts.
    for (const std::string& line :
         test_support::split_lines("version=1.0.6\nsize=0\nsize=-1\nsize=536870913\n"
                                   "file=\nfile=.a\nfile=a%2fb\nsha256=abc\ntorn\n"
                                   "min_firmware=a\\nb\nmax_firmware=" +
                                   std::string(256, '1') + "\nsha256=" + std::string(64, 'g'))) {
        EXPECT_FALSE(parse_update_index(index_text + line)) << line;
    }
}

TEST(UpdateIndex, MayBeForCertainFirmwareOnly) {
    const auto fits = [](const std::string& lines, const char* firmware) {
        return !firmware_mismatch(*parse_update_index(index_text + lines), firmware);
    };
    const std::string range = "min_firmware=T-1200.9\nmax_firmware=T-1200.10\n";
    EXPECT_TRUE(fits(range, "T-1200.9") && fits(range, "T-1200.10") && fits("", ""));
    for (const char* firmware : {"", "T-1200.8", "T-1200.11"}) {
        EXPECT_FALSE(fits(range, firmware)) << firmware;
    }
    EXPECT_FALSE(fits("max_firmware=1\n", "") || fits("max_firmware=1\n", "2"));
}

}  // namespace
}  // namespace ad_agent
