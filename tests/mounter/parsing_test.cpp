// What is parsed: command lines, image headers, trailers, manifests, link targets, paths.

#include "base/image_trailer.h"
#include "command_line.h"
#include "image.h"
#include "manifest.h"
#include "path.h"
#include "tree_rules.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace mounter_test {
namespace {

constexpr const char* image = "/opt/down/zels/zelADAgent_img/zelADAgent.img";
constexpr const char* download = "/opt/usr/apps/adagent/zelADAgent.img";
constexpr const char* point = "/opt/usr/apps/zelADAgent";
constexpr const char* library = "/opt/usr/apps/zelADAgent/libad-agent-fwk.so";

TEST(CommandLine, AcceptsOnlyArgumentsOfTheTables) {
    const std::vector<std::string> refused[] = {
        {},
        {""},
        {"--frobnicate"},
        {"--creat", "create_path_usr_lib"},
        {"--create"},
        {"--create", ""},
        {"--create", "remove_usr_lib_path"},
        {"--create", "create_path_usr_lib "},
        {"--create=create_path_usr_lib"},
        {"--remove", "create_path_usr_lib"},
        {"--mount", image},
        {"--mount", point, image},
        {"--mount", download, point},
        {"--mount", image, "/opt/usr/../usr/apps/zelADAgent"},
        {"--copylib", library, "/opt/usr/lib/libad-player-fwk.so"},
        {"--copy_all", library, "/opt/usr/lib/libad-agent-fwk.so"},
        {"--help", "--help"},
        {"--remove", "remove_usr_lib_file", "more"},
        {"--umount", point, "more"},
        {"--copylib", library, "/opt/usr/lib/libad-agent-fwk.so", "more"},
    };
    for (const std::vector<std::string>& words : refused) {
        std::vector<const char*> argv = {"ad-mounter"};
        for (const std::string& word : words) {
            argv.push_back(word.c_str());
        }
        argv.push_back(nullptr);
        const ad_mounter::Command command =
            ad_mounter::parse_command_line(static_cast<int>(argv.size()) - 1, argv.data());
        EXPECT_EQ(command.spec, nullptr) << testing::PrintToString(words);
        EXPECT_NE(command.error, nullptr) << testing::PrintToString(words);
    }
    EXPECT_EQ(ad_mounter::parse_command_line(0, nullptr).spec, nullptr);
}

// Numbers at offsets of a header, lowest byte first.
struct Field {
    size_t offset;
    size_t width;
    uint64_t value;
};
std::vector<unsigned char> header(const std::vector<Field>& fields) {
    std::vector<unsigned char> bytes(ad_mounter::image_header_size);
    for (const Field& field : fields) {
        for (size_t i = 0; i < field.width; ++i) {
            bytes[field.offset + i] = static_cast<unsigned char>(field.value >> (8 * i));
        }
    }
    return bytes;
}

TEST(ImageHeader, AcceptsOnlyValidSquashfsAndErofs) {
    const std::vector<Field> squashfs = {
        {0, 4, 0x73717368}, {12, 4, 131072}, {22, 2, 17}, {28, 2, 4}, {40, 8, 5000}};
    const std::vector<Field> erofs = {{1024, 4, 0xE0F5E1E2}, {1036, 1, 12}, {1060, 4, 2}};
    struct Case {
        const char* what;
        std::vector<Field> fields;
        Field change;
        uint64_t file_size;
        bool valid;
    };
    const Case cases[] = {
        {"squashfs", squashfs, {}, 8192, true},
        {"squashfs of exactly this size", squashfs, {}, 5000, true},
        {"squashfs, truncated", squashfs, {}, 4999, false},
        {"squashfs 3", squashfs, {28, 2, 3}, 8192, false},
        {"squashfs, other byte order", squashfs, {0, 4, 0x68737173}, 8192, false},
        {"squashfs, block size and its logarithm differ", squashfs, {22, 2, 16}, 8192, false},
        {"squashfs, huge logarithm", squashfs, {22, 2, 65535}, 8192, false},
        {"squashfs, no length", squashfs, {40, 8, 0}, 8192, false},
        {"squashfs, huge length", squashfs, {40, 8, ~0ULL}, 8192, false},
        {"erofs", erofs, {}, 8192, true},
        {"erofs, truncated", erofs, {}, 8191, false},
        {"erofs, huge block", erofs, {1036, 1, 255}, 8192, false},
        {"erofs, no blocks", erofs, {1060, 4, 0}, 8192, false},
        {"erofs, too many blocks", erofs, {1060, 4, 0xffffffff}, 8192, false},
        {"erofs, 48-bit block numbers", erofs, {1104, 4, 0x80}, 8192, true},
        {"zeros", {}, {}, 8192, false},
    };
    for (Case one : cases) {
        one.fields.push_back(one.change);
        const std::vector<unsigned char> bytes = header(one.fields);
        const auto seen = ad_mounter::recognise_image(bytes.data(), bytes.size(), one.file_size);
        EXPECT_EQ(seen.rejection == nullptr, one.valid) << one.what;
    }
    EXPECT_NE(ad_mounter::recognise_image(header(squashfs).data(), 95, 8192).rejection, nullptr);
}

// A bit that changes nothing would be one that nobody has signed.
TEST(Trailer, EveryBitCounts) {
    const std::string text =
        "untrusted comment: signature from minisign secret key\n"
        "RUQAAQIDBAUGBwABAgMEBQYHCAkKCwwNDg8QERITFBUWFxgZGhscHR4fICEiIyQlJicoKSorLC0uLzAxMjM0NTY3O"
        "Dk6Ozw9Pj8=\n"
        "trusted comment: version:1.5\n"
        "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+Pw=="
        "\n";
    std::string bytes = "image" + text + "ADIMGSIG";
    bytes += {static_cast<char>(text.size() & 0xff), static_cast<char>(text.size() >> 8), 0, 0};
    bytes += {1, 0, 0, 0};
    const auto contents = [&bytes] {
        const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
        const base::Trailer trailer = base::parse_trailer(data, bytes.size(), bytes.size());
        if (trailer.rejection != nullptr) {
            return std::string();
        }
        const base::Signature& signature = trailer.signature;
        return std::to_string(trailer.length) + std::string(signature.comment) +
               std::string(std::begin(signature.key_id), std::end(signature.key_id)) +
               std::string(std::begin(signature.signature), std::end(signature.signature)) +
               std::string(std::begin(signature.comment_signature),
                           std::end(signature.comment_signature));
    };
    const std::string original = contents();
    ASSERT_EQ(original.substr(0, 14), std::to_string(text.size() + 16) + "version:1.5");
    for (size_t bit = 8 * strlen("image"); bit < 8 * bytes.size(); ++bit) {
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
        EXPECT_NE(contents(), original) << "bit " << bit % 8 << " of byte " << bit / 8;
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
    }
}

TEST(DecimalVersion, IsComparedExactly) {
    const char* const ascending[][2] = {
        {"0", "00.00"},     {"0.05", "0.050"},          {"0.9", "00.9"},
        {"1", "1.0"},       {"1.05", "1.050"},          {"1.1", "1.10"},
        {"1.25", "1.2500"}, {"1.9", "01.90"},           {"9", "9.0"},
        {"10", "0010"},     {"16777216", "16777216.0"}, {"16777217", "016777217"}};
    for (size_t i = 0; i < std::size(ascending); ++i) {
        for (size_t j = 0; j < std::size(ascending); ++j) {
            const int result = base::compare_versions(ascending[i][0], ascending[j][1]);
            EXPECT_EQ((result > 0) - (result < 0), (i > j) - (i < j))
                << ascending[i][0] << " and " << ascending[j][1];
            EXPECT_TRUE(base::is_decimal_version(ascending[i][1]));
        }
    }
    for (const char* text : {"", ".", "1.", ".5", "1.2.3", "-1", "+1", "1e3", " 1", "1.5a", "1..5",
                             "123456789.1234567890"}) {
        EXPECT_FALSE(base::is_decimal_version(text)) << text;
    }
}

TEST(TrustedComment, StatesEachKnownWordOnceAndWellFormed) {
    base::TrustedComment comment;
    EXPECT_EQ(base::parse_trusted_comment(
                  "file:a version:1.06 product:demo-box\t min-firmware:T-1200.1 "
                  "max-firmware:T-1299.9  released:2028-02-29T23:59:59Z products:x",
                  comment),
              nullptr);
    EXPECT_EQ(comment.version, "1.06");
    EXPECT_EQ(comment.product, "demo-box");
    EXPECT_EQ(comment.min_firmware, "T-1200.1");
    EXPECT_EQ(comment.max_firmware, "T-1299.9");
    EXPECT_EQ(comment.released, "2028-02-29T23:59:59Z");
    const std::string long_product = "product:" + std::string(64, 'a');
    const std::string long_firmware = "max-firmware:" + std::string(256, 'a');
    const std::vector<std::string> refused = {
        "version:1",         "version:2",
        "version:",          "product:a product:a",
        "product:",          "product:a/b",
        "product:a\x80",     long_product,
        "min-firmware:",     "min-firmware:a min-firmware:a",
        "min-firmware:a\\",  "max-firmware:a max-firmware:b",
        "max-firmware:\x7f", long_firmware,
        "released:",         "released:2026-01-01T00:00:00Z released:2026-01-01T00:00:00Z"};
    for (const std::string& words : refused) {
        EXPECT_NE(base::parse_trusted_comment("version:2 " + words, comment), nullptr) << words;
    }
    EXPECT_NE(base::parse_trusted_comment("product:a Version:1 xversion:1", comment), nullptr);
    for (const char* time : {"2026-02-29T00:00:00Z", "2100-02-29T00:00:00Z", "2026-04-31T00:00:00Z",
                             "2026-00-01T00:00:00Z", "2026-13-01T00:00:00Z", "2026-01-00T00:00:00Z",
                             "2026-01-32T00:00:00Z", "2026-01-01T24:00:00Z", "2026-01-01T00:60:00Z",
                             "2026-01-01T00:00:60Z", "2026-01-01T00:00:00", "2026-01-01t00:00:00Z",
                             "2026-01-01T00:00:0:Z", "2026-01-01T00:00:00+"}) {
        EXPECT_FALSE(base::is_utc_time(time)) << time;
    }
    // A value may look like another word.
    EXPECT_EQ(base::parse_trusted_comment("version:1 min-firmware:product:a", comment), nullptr);
    EXPECT_EQ(comment.product, "");
    EXPECT_TRUE(base::is_utc_time("2000-02-29T00:00:00Z"));
}

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
        char version[ad_mounter::version_size] = "";
        const bool found = ad_mounter::version_in_manifest(text, version);
        EXPECT_EQ(found, expected != nullptr) << text;
        EXPECT_STREQ(found ? version : "", expected != nullptr ? expected : "") << text;
    }
}

TEST(TreeLinks, StayInsideOrAreRejected) {
    struct Case {
        const char* target;
        int depth;
        bool inside;
    };
    const Case cases[] = {
        {"file", 0, true},    {"a/b/c", 0, true},        {"./a", 0, true},
        {"../a", 1, true},    {"../../a/b", 2, true},    {"..", 1, true},
        {"", 0, false},       {"/etc/passwd", 3, false}, {"..", 0, false},
        {"../a", 0, false},   {"../../a", 1, false},     {"./../a", 0, false},
        {"a/../b", 1, false}, {"a/../../b", 2, false},   {"..//..//..", 2, false},
        {"...", 0, true},     {"..a/b", 0, true},        {"a//b/", 0, true},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(ad_mounter::link_stays_inside(one.target, one.depth), one.inside)
            << one.target << " at " << one.depth;
    }
}

TEST(Path, WalksOnlyOrdinaryComponents) {
    const int fd = ad_mounter::open_path("/usr/bin", O_PATH | O_DIRECTORY);
    EXPECT_GE(fd, 0);
    close(fd);
    const std::pair<std::string, int> cases[] = {{"/usr/../usr", EINVAL},
                                                 {"/usr/./bin", EINVAL},
                                                 {"/usr//bin", EINVAL},
                                                 {"/usr/", EINVAL},
                                                 {"/" + std::string(PATH_MAX, 'a'), ENAMETOOLONG},
                                                 {"/proc/self/status", ELOOP},
                                                 {"/proc/self/fd/0", ELOOP},
                                                 {"/usr/bin/env/x", ENOTDIR}};
    for (const auto& [path, error] : cases) {
        errno = 0;
        EXPECT_EQ(ad_mounter::open_path(path.c_str(), O_RDONLY), -1) << path;
        EXPECT_EQ(errno, error) << path;
    }
}

}  // namespace
}  // namespace mounter_test
