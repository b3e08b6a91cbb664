#include "tree_scan.h"

#include "directory_reader.h"
#include "parallel_entries.h"
#include "tree_rules.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

class Scan {
public:
    Scan(uint64_t block_size, TreeSize& size) : block_size_(block_size), size_(size) {}

    Outcome entry(int directory, const char* name, int depth) {
        struct stat status;
        if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return Outcome::entry_failed("stat", directory, name, errno);
        }
        const char* rejection = mode_rejection(status.st_mode);
        if (rejection != nullptr) {
            return reject_entry(directory, name, rejection);
        }
        ++size_.inodes;
        if (S_ISDIR(status.st_mode)) {
            ++size_.blocks;
            return subdirectory(directory, name, depth + 1);
        }
        size_.blocks += (static_cast<uint64_t>(status.st_size) + block_size_ - 1) / block_size_;
        char target[PATH_MAX];
        return S_ISLNK(status.st_mode) ? read_inner_link(directory, name, depth, target)
                                       : Outcome();
    }

private:
    Outcome subdirectory(int parent, const char* name, int depth) {
        base::UniqueFd directory;
        TRY(open_subdirectory(parent, name, depth, directory));
        DirectoryReader reader(directory.get());
        DirectoryEntry next;
        while (reader.next(next)) {
            TRY(entry(directory.get(), next.name, depth));
        }
        return reader.error() == 0
                   ? Outcome()
                   : Outcome::entry_failed("read directory", parent, name, reader.error());
    }

    uint64_t block_size_;
    TreeSize& size_;
};

}  // namespace

Outcome scan_tree(int top, uint64_t block_size, TreeSize& size) {
    TreeSize parts[entry_workers];
    const Outcome outcome =
        for_each_entry_parallel(top, [&](const DirectoryEntry& entry, int worker) {
            return Scan(block_size, parts[worker]).entry(top, entry.name, 0);
        });
    for (const TreeSize& part : parts) {
        size.blocks += part.blocks;
        size.inodes += part.inodes;
    }
    return outcome;
}

}  // namespace ad_mounter
