// The values that the library reads: versions, the configuration and the index.
#include "files.h"
#include "log.h"
#include "settings.h"
#include "update_index.h"
#include "utc_time.h"
#include "version.h"

#include <tuple>

#include <gtest/gtest.h>

namespace ad_agent {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(Version, OfAHostIsTheNumberThatItBeginsWith) {
    for (const auto& [newer, older] : Pairs{{"1.06", "1.05"},
                                            {"2.9", "2.10"},
                                            {"1", "abc"},
                                            {"16777217", "16777216"},
                                            {"1.06", "1.05 beta"},
                                            {"1.06", "1.05.9"},
                                            {"0.1", "."},
                                            {"1", "-2"}}) {
        EXPECT_TRUE(is_newer(newer, older) && !is_newer(older, newer)) << newer;
    }
    EXPECT_FALSE(is_newer("1.050", "1.05") || is_newer("1.05", "1.05 beta"));
}

TEST(Log, EscapesAndCutsWhatAServerMaySay) {
    const std::string right_to_left = std::string("\xe2\x80") + '\xae';
    for (const auto& [text, line] :
         Pairs{{"gr\u00fc\u00df dich", "gr\u00fc\u00df dich"},
               {std::string("a\x1b[31m\n\0\x7f", 9), "a\\x1b[31m\\x0a\\x00\\x7f"},
               {"\u0085" + right_to_left + "\u2028\ue000", "\\u0085\\u202e\\u2028\\ue000"},
               {"\xff\xc3", "\\xff\\xc3"},
               {"123456789012345678901234", "123456789012345678901234"},
               {"1234567890123456789012\u00fc1", "123456789012345678901..."},
               {"12345678901234567890" + right_to_left, "12345678901234567890..."}}) {
        EXPECT_EQ(printable(text, 24), line);
    }
}

TEST(Time, IsUtcAndHasOneSpelling) {
    EXPECT_EQ(format_utc(1795255200), "2026-11-21T10:00:00Z");
    EXPECT_EQ(parse_utc("2026-11-21T10:00:00Z"), 1795255200);
    for (const char* bad :
         {"", "2026-11-21", "2026-11-21T10:00:00", "2026-11-31T10:00:00Z", "2026-11-21T10:00:00Z ",
          " 2026-11-21T10:00:00Z", "2026-1-21T10:00:00Z"}) {
        EXPECT_FALSE(parse_utc(bad)) << bad;
    }
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
    testing::internal::CaptureStderr();
    EXPECT_EQ(read("[server]\nurl=file:///srv\nverify=false\nauthorities=/a.pem\n"
                   "[timeouts]\nconnect=1\nstall=2\ndocument=3\nimage=86400\n"),
              std::make_tuple("file:///srv", 1, 2, 3, 86400, false, "/a.pem"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
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
    for (const std::string& line : test_support::split_lines(
             "version=1.0.6\nsize=0\nsize=-1\nsize=536870913\n"
             "file=\nfile=.a\nfile=a%2fb\nsha256=abc\ntorn\n"
             "min_firmware=a\\nb\nmax_firmware=" +
             std::string(256, '1') + "\nproduct=a b\nfile=" + std::string(256, 'a') +
             "\nsha256=" + std::string(64, 'g'))) {
        EXPECT_FALSE(parse_update_index(index_text + line)) << line;
    }
}

TEST(UpdateIndex, MayBeForCertainFirmwareOnly) {
    const auto fits = [](const std::string& lines, const char* firmware) {
        return !firmware_mismatch(parse_update_index(index_text + lines)->target, firmware);
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
