#include "ADDigest.h"
#include "recorder.h"

#include <cerrno>

namespace daemon_tests {
namespace {

class Digest : public DaemonTest {};

TEST_F(Digest, MatchesThePublishedVectors) {
    struct Row {
        std::string content;
        std::string sha256;
        std::string md5;
    };
    const std::string file = device.host_path("/file");
    for (const Row& row :
         {Row{"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
              "d41d8cd98f00b204e9800998ecf8427e"},
          Row{"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
              "900150983cd24fb0d6963f7d28e17f72"},
          // Longer than any piece that is read at once.
          Row{std::string(1000000, 'a'),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0",
              "7707d6ae4e027c70eea2a935c2296f21"}}) {
        device.put("/file", row.content);
        EXPECT_EQ(ad_sha256_file(file.c_str()), row.sha256);
        EXPECT_EQ(ad_md5_file(file.c_str()), row.md5);
    }
    EXPECT_EQ(ad_sha256_file("/nowhere"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ad_md5_file(device.root.c_str()), "");
    EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace daemon_tests
