#include "ADDigest.h"
#include "recorder.h"

#include <cerrno>

namespace daemon_tests {
namespace {

class Digest : public DaemonTest {};

TEST_F(Digest, MatchesThePublishedVectors) {
    const std::string file = device.put("/file", "abc").host_path("/file");
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(ad_md5_file(file.c_str()), "900150983cd24fb0d6963f7d28e17f72");
    // Longer than any piece that is read at once.
    device.put("/file", std::string(1000000, 'a'));
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(ad_sha256_file("/nowhere"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ad_md5_file(device.root.c_str()), "");
    EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace daemon_tests
