#include "ADDigest.h"
#include "recorder.h"

#include <cerrno>
#include <tuple>

namespace daemon_tests {
namespace {

class Digest : public DaemonTest {};

TEST_F(Digest, MatchesThePublishedVectors) {
    const std::string file = device.host_path("/file");
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
         "d41d8cd98f00b204e9800998ecf8427e"},
        // Longer than any piece that is read at once.
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0",
         "7707d6ae4e027c70eea2a935c2296f21"}};
    for (const auto& [content, sha256, md5] : rows) {
        device.put("/file", content);
        EXPECT_EQ(ad_sha256_file(file.c_str()), sha256);
        EXPECT_EQ(ad_md5_file(file.c_str()), md5);
    }
    EXPECT_EQ(ad_sha256_file("/nowhere"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ad_md5_file(device.root.c_str()), "");
    EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace daemon_tests
