// What is understood, and that nothing else is; what an image's first bytes say.

#include "command_line.h"

#include "image.h"
#include "support/device.h"
#include "tree_rules.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace mounter_test {
namespace {

using ad_mounter::Command;
using ad_mounter::parse_command_line;

Command parse(const Words& words) {
    std::vector<const char*> argv = {"ad-mounter"};
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return parse_command_line(static_cast<int>(argv.size()) - 1, argv.data());
}

TEST(CommandLine, OnlyTheTablesWordsAreUnderstood) {
    const Words refused[] = {
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
        {"--mount", stored_image},
        {"--mount", mount_point, stored_image},
        {"--mount", downloaded_image, mount_point},
        {"--mount", stored_image, "/opt/usr/../usr/apps/zelADAgent"},
        {"--copylib", mounted_library, player_library},
        {"--copy_all", mounted_library, agent_library},
        {"--help", "--help"},
        {"--remove", "remove_usr_lib_file", "more"},
        {"--umount", mount_point, "more"},
        {"--copylib", mounted_library, agent_library, "more"},
    };
    for (const Words& words : refused) {
        const Command command = parse(words);
        EXPECT_EQ(command.spec, nullptr) << testing::PrintToString(words);
        EXPECT_NE(command.error, nullptr) << testing::PrintToString(words);
    }
    EXPECT_EQ(parse_command_line(0, nullptr).spec, nullptr);
}

// A header with the given numbers put at the given places.
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

TEST(ImageHeader, OnlySoundSquashfsAndErofsAreRecognised) {
    const std::vector<Field> squashfs = {
        {0, 4, 0x73717368}, {12, 4, 131072}, {22, 2, 17}, {28, 2, 4}, {40, 8, 5000}};
    const std::vector<Field> erofs = {{1024, 4, 0xE0F5E1E2}, {1036, 1, 12}, {1060, 4, 2}};
    const auto with = [](std::vector<Field> fields, const Field& change) {
        fields.push_back(change);
        return header(fields);
    };
    struct Case {
        const char* what;
        std::vector<unsigned char> bytes;
        uint64_t file_size;
        bool good;
    };
    const Case cases[] = {
        {"squashfs", header(squashfs), 8192, true},
        {"squashfs of exactly this size", header(squashfs), 5000, true},
        {"squashfs cut short", header(squashfs), 4999, false},
        {"squashfs 3", with(squashfs, {28, 2, 3}), 8192, false},
        {"squashfs, other byte order", with(squashfs, {0, 4, 0x68737173}), 8192, false},
        {"squashfs, block size and its logarithm differ", with(squashfs, {22, 2, 16}), 8192, false},
        {"squashfs, a huge logarithm", with(squashfs, {22, 2, 65535}), 8192, false},
        {"squashfs, no length", with(squashfs, {40, 8, 0}), 8192, false},
        {"squashfs, a huge length", with(squashfs, {40, 8, ~0ULL}), 8192, false},
        {"erofs", header(erofs), 8192, true},
        {"erofs cut short", header(erofs), 8191, false},
        {"erofs, a huge block", with(erofs, {1036, 1, 255}), 8192, false},
        {"erofs, no blocks", with(erofs, {1060, 4, 0}), 8192, false},
        {"erofs, too many blocks", with(erofs, {1060, 4, 0xffffffff}), 8192, false},
        {"erofs, 48 bits of blocks", with(erofs, {1104, 4, 0x80}), 8192, true},
        {"zeros", header({}), 8192, false},
    };
    for (const Case& one : cases) {
        const ad_mounter::Recognition seen =
            ad_mounter::recognise_image(one.bytes.data(), one.bytes.size(), one.file_size);
        EXPECT_EQ(seen.rejection == nullptr, one.good) << one.what;
    }
    EXPECT_NE(ad_mounter::recognise_image(header(squashfs).data(), 95, 8192).rejection, nullptr);
}

TEST(TreeLinks, OnlyThoseThatStayInside) {
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

}  // namespace
}  // namespace mounter_test
