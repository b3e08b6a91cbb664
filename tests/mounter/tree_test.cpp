// Scanning and copying trees and files, by the functions that need no image.

#include "base/unique_fd.h"
#include "file_copy.h"
#include "files.h"
#include "tree_copy.h"
#include "tree_scan.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mounter_test {
namespace {

base::UniqueFd open_directory(const std::string& path) {
    return base::UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY));
}

// Both look at each entry on their own: the tree may change between them.
TEST(Tree, WhatDoesNotBelongIntoAnImageIsNeitherScannedNorCopied) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    struct Case {
        const char* make;
        bool accepted;
    };
    const Case cases[] = {
        {"mkdir -p good/d; ln -s ../good good/d/link; touch good/file", true},
        {"touch bad; chmod 4755 bad", false},
        {"touch bad; chmod 2755 bad", false},
        {"mkdir -m 2755 bad", false},
        {"mkdir bad; chmod 4755 bad", false},
        {"mkdir d; mknod d/bad c 1 3", false},
        {"mknod bad b 7 0", false},
        {"mkfifo bad", false},
        {"ln -s /etc/passwd bad", false},
        {"mkdir d; ln -s ../.. d/bad", false},
        {"mkdir -p bad$(printf '/d%.0s' $(seq 80))", false},
    };
    for (const Case& one : cases) {
        const test_support::TemporaryDirectory directory;
        const std::string make = "cd " + directory.path() + "; mkdir from to; cd from; " + one.make;
        ASSERT_EQ(system(make.c_str()), 0) << make;
        const base::UniqueFd to = open_directory(directory / "to");
        ad_mounter::TreeSize size;
        const auto scanned =
            ad_mounter::scan_tree(open_directory(directory / "from").get(), 4096, size);
        const auto copied =
            ad_mounter::copy_contents(open_directory(directory / "from").get(), to.get());
        EXPECT_EQ(scanned.status(), one.accepted ? EX_OK : EX_DATAERR) << one.make;
        EXPECT_EQ(copied.status(), one.accepted ? EX_OK : EX_DATAERR) << one.make;
    }
}

TEST(FileCopy, SourceThatEndsEarlyIsAnError) {
    const test_support::TemporaryDirectory directory;
    char buffer[4000];
    test_support::write_file(directory / "from", std::string(3000, 'x'));
    for (const size_t buffer_size : {1000, 4000}) {
        for (const uint64_t missing : {0, 1, 100, 3000}) {
            const base::UniqueFd from(open((directory / "from").c_str(), O_RDONLY));
            const base::UniqueFd to(
                open((directory / "to").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
            EXPECT_EQ(
                ad_mounter::copy_bytes(from.get(), to.get(), 3000 + missing, buffer, buffer_size),
                missing == 0 ? 0 : EIO)
                << missing << " with " << buffer_size;
        }
    }
}

}  // namespace
}  // namespace mounter_test
