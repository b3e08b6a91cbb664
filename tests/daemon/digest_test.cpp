#include "ADDigest.h"
#include "files.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

TEST(Digest, MatchesPublishedVectors) {
    const test_support::TemporaryDirectory directory;
    const std::string file = directory / "file";
    test_support::write_file(file, "abc");
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(ad_md5_file(file.c_str()), "900150983cd24fb0d6963f7d28e17f72");
    // Longer than the chunks that are read.
    test_support::write_file(file, std::string(1000000, 'a'));
    EXPECT_EQ(ad_sha256_file(file.c_str()),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(ad_sha256_file((directory / "missing").c_str()), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ad_md5_file(directory.path().c_str()), "");
    EXPECT_EQ(errno, EISDIR);
}

}  // namespace
