#include "removal.h"

#include "base/unique_fd.h"
#include "directory_reader.h"
#include "parallel_entries.h"
#include "path.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Each level holds a descriptor and a stack frame.
constexpr int max_depth = 128;

Outcome remove_entry(int parent, const DirectoryEntry& entry, int depth);

Outcome remove_contents(int directory, int depth) {
    DirectoryReader reader(directory);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        TRY(remove_entry(directory, entry, depth));
    }
    return reader.error() == 0
               ? Outcome()
               : Outcome::entry_failed("read directory", directory, ".", reader.error());
}

Outcome remove_contents_in_parallel(int directory) {
    return for_each_entry_parallel(directory, [directory](const DirectoryEntry& entry, int) {
        return remove_entry(directory, entry, 1);
    });
}

Outcome remove_directory(int parent, const char* name, int depth) {
    if (depth > max_depth) {
        return Outcome::entry_refused(EX_OSERR, "remove", parent, name,
                                      "directories nested too deeply");
    }
    {
        const base::UniqueFd directory(
            open_entry(parent, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
        if (!directory && errno == ENOENT) {
            return {};
        }
        if (!directory && errno == EXDEV) {
            return Outcome::entry_refused(EX_TEMPFAIL, "remove", parent, name, "is a mount point");
        }
        if (!directory) {
            return Outcome::entry_failed("open directory", parent, name, errno);
        }
        TRY(depth == 1 ? remove_contents_in_parallel(directory.get())
                       : remove_contents(directory.get(), depth));
    }
    if (unlinkat(parent, name, AT_REMOVEDIR) != 0 && errno != ENOENT) {
        return Outcome::entry_failed("remove directory", parent, name, errno);
    }
    return {};
}

Outcome remove_entry(int parent, const DirectoryEntry& entry, int depth) {
    if (entry.type != DT_DIR) {
        if (unlinkat(parent, entry.name, 0) == 0 || errno == ENOENT) {
            return {};
        }
        if (errno != EISDIR) {
            return Outcome::entry_failed("remove", parent, entry.name, errno);
        }
    }
    return remove_directory(parent, entry.name, depth + 1);
}

}  // namespace

Outcome remove_recursively(int parent, const char* name, const char* path) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
        return {};
    }
    const int error = errno;
    struct stat status;
    // A read-only file system reports EROFS for a missing entry, too.
    if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        return {};
    }
    return error == EISDIR ? remove_directory(parent, name, 1)
                           : Outcome::failed("remove", path, error);
}

}  // namespace ad_mounter
