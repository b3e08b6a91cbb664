#include "tree_copy.h"

#include "directory_reader.h"
#include "file_copy.h"
#include "parallel_entries.h"
#include "path.h"
#include "tree_rules.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr size_t buffer_size = size_t{256} << 10;

class TreeCopy {
public:
    explicit TreeCopy(char* buffer) : buffer_(buffer) {}

    Outcome entry(int from, int to, const DirectoryEntry& entry, int depth) {
        unsigned char type = entry.type;
        if (type == DT_UNKNOWN) {
            struct stat status;
            if (fstatat(from, entry.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                return Outcome::entry_failed("stat", from, entry.name, errno);
            }
            type = static_cast<unsigned char>(IFTODT(status.st_mode));
        }
        switch (type) {
            case DT_DIR:
                return subdirectory(from, to, entry.name, depth + 1);
            case DT_LNK:
                return symbolic_link(from, to, entry.name, depth);
            default:
                return file(from, to, entry.name);
        }
    }

private:
    Outcome file(int from, int to, const char* name) {
        const base::UniqueFd source(
            open_entry(from, name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::stay));
        struct stat status;
        if (!source || fstat(source.get(), &status) != 0) {
            return Outcome::entry_failed("open", from, name, errno);
        }
        const char* rejection = mode_rejection(status.st_mode);
        if (rejection != nullptr || !S_ISREG(status.st_mode)) {
            return reject_entry(from, name, rejection != nullptr ? rejection : "changed its type");
        }
        const base::UniqueFd copy(openat(
            to, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, status.st_mode & 0755));
        if (!copy) {
            return Outcome::entry_failed("create", to, name, errno);
        }
        int error = copy_bytes(source.get(), copy.get(), static_cast<uint64_t>(status.st_size),
                               buffer_, buffer_size);
        if (error == 0) {
            error = set_copied_mode(copy.get(), status.st_mode);
        }
        return error == 0 ? Outcome() : Outcome::entry_failed("copy", from, name, error);
    }

    static Outcome symbolic_link(int from, int to, const char* name, int depth) {
        char target[PATH_MAX];
        TRY(read_inner_link(from, name, depth, target));
        return symlinkat(target, to, name) == 0
                   ? Outcome()
                   : Outcome::entry_failed("create symbolic link", to, name, errno);
    }

    Outcome subdirectory(int from, int to, const char* name, int depth) {
        base::UniqueFd source;
        TRY(open_subdirectory(from, name, depth, source));
        struct stat status;
        if (fstat(source.get(), &status) != 0) {
            return Outcome::entry_failed("stat", from, name, errno);
        }
        const char* rejection = mode_rejection(status.st_mode);
        if (rejection != nullptr) {
            return reject_entry(from, name, rejection);
        }
        if (mkdirat(to, name, status.st_mode & 0755) != 0) {
            return Outcome::entry_failed("create directory", to, name, errno);
        }
        base::UniqueFd copy;
        TRY(open_subdirectory(to, name, depth, copy));
        const int error = set_copied_mode(copy.get(), status.st_mode);
        return error == 0 ? contents(source.get(), copy.get(), depth)
                          : Outcome::entry_failed("set mode of", to, name, error);
    }

    Outcome contents(int from, int to, int depth) {
        DirectoryReader reader(from);
        DirectoryEntry next;
        while (reader.next(next)) {
            TRY(entry(from, to, next, depth));
        }
        return reader.error() == 0
                   ? Outcome()
                   : Outcome::entry_failed("read directory", from, ".", reader.error());
    }

    char* buffer_;
};

}  // namespace

Outcome copy_contents(int from, int to) {
    alignas(4096) static char buffers[entry_workers][buffer_size];
    return for_each_entry_parallel(from, [&](const DirectoryEntry& entry, int worker) {
        return TreeCopy(buffers[worker]).entry(from, to, entry, 0);
    });
}

int set_copied_mode(int fd, mode_t mode) {
    // Bits that the umask takes away, and the sticky bit, were not given at its creation.
    const bool complete = (mode & copied_mode_bits & ~mode_t{0755}) == 0;
    return complete || fchmod(fd, mode & copied_mode_bits) == 0 ? 0 : errno;
}

}  // namespace ad_mounter
