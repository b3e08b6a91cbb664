#include "tree_rules.h"

#include "directory_reader.h"
#include "pinned_path.h"
#include "shared_entries.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

class Survey {
public:
    Survey(uint64_t block_size, TreeSize& size) : block_size_(block_size), size_(size) {}

    Outcome entry(int directory, const char* name, int depth) {
        struct stat status;
        if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return fail_entry("looking at", directory, name, errno);
        }
        const char* refusal = refusal_of_mode(status.st_mode);
        if (refusal != nullptr) {
            return refuse_entry(directory, name, refusal);
        }
        ++size_.inodes;
        if (S_ISDIR(status.st_mode)) {
            ++size_.blocks;
            return subdirectory(directory, name, depth + 1);
        }
        size_.blocks += (static_cast<uint64_t>(status.st_size) + block_size_ - 1) / block_size_;
        return S_ISLNK(status.st_mode) ? link(directory, name, depth) : Outcome();
    }

private:
    static Outcome link(int directory, const char* name, int depth) {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(directory, name, target, sizeof target - 1);
        if (length < 0) {
            return fail_entry("reading the link", directory, name, errno);
        }
        target[length] = '\0';
        return link_stays_inside(target, depth)
                   ? Outcome()
                   : refuse_entry(directory, name, "a link that leads out of the tree");
    }

    Outcome subdirectory(int parent, const char* name, int depth) {
        if (depth > deepest_tree) {
            return refuse_entry(parent, name, "directories are nested too deeply");
        }
        const UniqueFd directory(open_beneath(parent, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
        if (!directory.valid()) {
            return fail_entry("opening the directory", parent, name, errno);
        }
        DirectoryReader reader(directory.get());
        DirectoryEntry next;
        while (reader.next(next)) {
            const Outcome outcome = entry(directory.get(), next.name, depth);
            if (!outcome.ok()) {
                return outcome;
            }
        }
        return reader.error() != 0
                   ? fail_entry("reading the directory", parent, name, reader.error())
                   : Outcome();
    }

    uint64_t block_size_;
    TreeSize& size_;
};

}  // namespace

const char* refusal_of_mode(mode_t mode) {
    if (S_ISLNK(mode)) {
        return nullptr;
    }
    if (!S_ISREG(mode) && !S_ISDIR(mode)) {
        return "neither file, directory nor link";
    }
    return (mode & (S_ISUID | S_ISGID)) != 0 ? "set-user-ID or set-group-ID" : nullptr;
}

bool link_stays_inside(const char* target, int depth) {
    if (*target == '/' || *target == '\0') {
        return false;
    }
    bool climbing = true;
    while (*target != '\0') {
        const char* end = strchrnul(target, '/');
        const auto length = static_cast<size_t>(end - target);
        if (length == 2 && strncmp(target, "..", 2) == 0) {
            if (!climbing || --depth < 0) {
                return false;
            }
        } else if (length != 0 && !(length == 1 && *target == '.')) {
            climbing = false;
        }
        target = *end == '/' ? end + 1 : end;
    }
    return true;
}

Outcome survey_tree(int top, uint64_t block_size, TreeSize& size) {
    TreeSize parts[entry_workers];
    const auto work = [&](const DirectoryEntry& entry, int worker) {
        return Survey(block_size, parts[worker]).entry(top, entry.name, 0);
    };
    const Outcome outcome = share_entries(top, work);
    for (const TreeSize& part : parts) {
        size.blocks += part.blocks;
        size.inodes += part.inodes;
    }
    return outcome;
}

Outcome refuse_entry(int directory, const char* name, const char* reason) {
    return Outcome::refused(EX_DATAERR, "copying", remember_path(directory, name), reason);
}

Outcome fail_entry(const char* step, int directory, const char* name, int error) {
    return Outcome::failed(step, remember_path(directory, name), error);
}

}  // namespace ad_mounter
