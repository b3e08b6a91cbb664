#include "tree_copy.h"

#include "copy.h"
#include "directory_reader.h"
#include "pinned_path.h"
#include "remove.h"
#include "shared_entries.h"
#include "tree_rules.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace ad_mounter {

namespace {

constexpr size_t buffer_size = size_t{256} << 10;

// What the umask took away, and the sticky bit.
bool mode_needs_setting(mode_t mode) { return (mode & kept_mode_bits & ~mode_t{0755}) != 0; }

// What a tree was found to be when it was surveyed is looked at again: only
// the opened thing itself counts.
class Copier {
public:
    explicit Copier(char* buffer) : buffer_(buffer) {}

    Outcome entry(int from, int to, const DirectoryEntry& entry, int depth) {
        unsigned char type = entry.type;
        if (type == DT_UNKNOWN) {
            struct stat status;
            if (fstatat(from, entry.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                return fail_entry("looking at", from, entry.name, errno);
            }
            type = static_cast<unsigned char>(IFTODT(status.st_mode));
        }
        switch (type) {
            case DT_DIR:
                return subdirectory(from, to, entry.name, depth + 1);
            case DT_LNK:
                return link(from, to, entry.name, depth);
            default:
                return file(from, to, entry.name);
        }
    }

private:
    Outcome file(int from, int to, const char* name) {
        const UniqueFd source(
            openat(from, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat status;
        if (!source.valid() || fstat(source.get(), &status) != 0) {
            return fail_entry("opening", from, name, errno);
        }
        const char* refusal = refusal_of_mode(status.st_mode);
        if (refusal != nullptr || !S_ISREG(status.st_mode)) {
            return refuse_entry(from, name, refusal != nullptr ? refusal : "not a regular file");
        }
        const UniqueFd copy(openat(to, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                   status.st_mode & 0755));
        if (!copy.valid()) {
            return fail_entry("making the file", to, name, errno);
        }
        int error = copy_bytes(source.get(), copy.get(), static_cast<uint64_t>(status.st_size),
                               buffer_, buffer_size);
        if (error == 0 && mode_needs_setting(status.st_mode) &&
            fchmod(copy.get(), status.st_mode & kept_mode_bits) != 0) {
            error = errno;
        }
        return error != 0 ? fail_entry("copying", to, name, error) : Outcome();
    }

    static Outcome link(int from, int to, const char* name, int depth) {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(from, name, target, sizeof target - 1);
        if (length < 0) {
            return fail_entry("reading the link", from, name, errno);
        }
        target[length] = '\0';
        if (!link_stays_inside(target, depth)) {
            return refuse_entry(from, name, "a link that leads out of the tree");
        }
        return symlinkat(target, to, name) != 0 ? fail_entry("making the link", to, name, errno)
                                                : Outcome();
    }

    Outcome subdirectory(int from, int to, const char* name, int depth) {
        if (depth > deepest_tree) {
            return refuse_entry(from, name, "directories are nested too deeply");
        }
        const UniqueFd source(open_beneath(from, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
        struct stat status;
        if (!source.valid() || fstat(source.get(), &status) != 0) {
            return fail_entry("opening the directory", from, name, errno);
        }
        const char* refusal = refusal_of_mode(status.st_mode);
        if (refusal != nullptr) {
            return refuse_entry(from, name, refusal);
        }
        if (mkdirat(to, name, status.st_mode & 0755) != 0) {
            return fail_entry("making the directory", to, name, errno);
        }
        const UniqueFd copy(open_beneath(to, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
        if (!copy.valid()) {
            return fail_entry("opening the directory", to, name, errno);
        }
        if (mode_needs_setting(status.st_mode) &&
            fchmod(copy.get(), status.st_mode & kept_mode_bits) != 0) {
            return fail_entry("setting the mode", to, name, errno);
        }
        return contents(source.get(), copy.get(), depth);
    }

    Outcome contents(int from, int to, int depth) {
        DirectoryReader reader(from);
        DirectoryEntry next;
        while (reader.next(next)) {
            const Outcome outcome = entry(from, to, next, depth);
            if (!outcome.ok()) {
                return outcome;
            }
        }
        return reader.error() != 0 ? fail_entry("reading the directory", from, ".", reader.error())
                                   : Outcome();
    }

    char* buffer_;
};

Outcome copy_contents(int from, int to) {
    alignas(4096) static char buffers[entry_workers][buffer_size];
    const auto work = [&](const DirectoryEntry& entry, int worker) {
        return Copier(buffers[worker]).entry(from, to, entry, 0);
    };
    return share_entries(from, work);
}

// Refuses what is not copied, and a tree that there is no room for.
Outcome check_source(int source, const Place& place) {
    struct statvfs room;
    if (fstatvfs(place.directory.get(), &room) != 0) {
        return Outcome::failed("checking for room", place.path, errno);
    }
    TreeSize size;
    const Outcome outcome = survey_tree(source, room.f_frsize, size);
    if (!outcome.ok()) {
        return outcome;
    }
    // Where a file system does not count, nothing can be said.
    const bool blocks_short = room.f_blocks != 0 && size.blocks > room.f_bavail;
    const bool inodes_short = room.f_files != 0 && size.inodes > room.f_favail;
    return blocks_short || inodes_short ? Outcome::failed("checking for room", place.path, ENOSPC)
                                        : Outcome();
}

// Puts the prepared tree in place of the old one, if any, which ends up under
// a hidden name.
int swap_in(const Place& place, const char* aside, const char* old) {
    const int directory = place.directory.get();
    if (renameat2(directory, aside, directory, place.name, RENAME_EXCHANGE) == 0) {
        return 0;
    }
    if (errno == ENOENT) {
        return renameat(directory, aside, directory, place.name) == 0 ? 0 : errno;
    }
    if (errno != EINVAL && errno != ENOSYS && errno != EXDEV) {
        return errno;
    }
    // Without an exchange there is a moment with no tree at all.
    if (renameat(directory, place.name, directory, old) != 0) {
        if (errno != EXDEV || !discard(directory, place.name, place.path).ok()) {
            return errno;
        }
    }
    return renameat(directory, aside, directory, place.name) == 0 ? 0 : errno;
}

// The new tree, complete and on the disk, under its hidden name.
Outcome prepare(int source, const struct stat& top, const Place& place, const char* aside) {
    if (mkdirat(place.directory.get(), aside, top.st_mode & 0755) != 0) {
        return Outcome::failed(EX_CANTCREAT, "making the new tree", place.path, errno);
    }
    const UniqueFd fresh(
        open_beneath(place.directory.get(), aside, O_RDONLY | O_DIRECTORY, Mounts::stay));
    if (!fresh.valid()) {
        return Outcome::failed("opening the new tree", place.path, errno);
    }
    const Outcome copied = copy_contents(source, fresh.get());
    if (!copied.ok()) {
        return copied;
    }
    if (mode_needs_setting(top.st_mode) && fchmod(fresh.get(), top.st_mode & kept_mode_bits) != 0) {
        return Outcome::failed("setting the mode", place.path, errno);
    }
    if (syncfs(fresh.get()) != 0) {
        return Outcome::failed("synchronising the new tree", place.path, errno);
    }
    return {};
}

Outcome replace_tree(int source, const struct stat& top, const Place& place) {
    const int directory = place.directory.get();
    const SiblingName aside = aside_name(place.name);
    const SiblingName old = old_name(place.name);
    const Outcome prepared = prepare(source, top, place, aside.text);
    if (!prepared.ok()) {
        (void)discard(directory, aside.text, place.path);
        return prepared;
    }
    const int error = swap_in(place, aside.text, old.text);
    if (error != 0) {
        (void)discard(directory, aside.text, place.path);
        return Outcome::failed("renaming into place", place.path, error);
    }
    if (fsync(directory) != 0) {
        return Outcome::failed("synchronising the directory", place.path, errno);
    }
    const Outcome removed = discard(directory, aside.text, place.path);
    return removed.ok() ? discard(directory, old.text, place.path) : removed;
}

Outcome check_destination(const Place& place) {
    struct stat status;
    if (fstatat(place.directory.get(), place.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? Outcome() : Outcome::failed("looking at", place.path, errno);
    }
    if (S_ISLNK(status.st_mode)) {
        return Outcome::failed("looking at", place.path, ELOOP);
    }
    return S_ISDIR(status.st_mode) ? Outcome() : Outcome::failed("looking at", place.path, ENOTDIR);
}

}  // namespace

Outcome copy_tree(const Row& row, const Caller& caller) {
    const UniqueFd source(open_absolute(row.first, O_RDONLY | O_DIRECTORY));
    struct stat top;
    if (!source.valid() || fstat(source.get(), &top) != 0) {
        return Outcome::failed("opening the source", row.first, errno);
    }
    Place place;
    Outcome outcome = pin_target(row, caller, place);
    if (outcome.ok()) {
        outcome = discard(place.directory.get(), aside_name(place.name).text, place.path);
    }
    if (outcome.ok()) {
        outcome = discard(place.directory.get(), old_name(place.name).text, place.path);
    }
    if (outcome.ok()) {
        outcome = check_destination(place);
    }
    if (outcome.ok()) {
        outcome = check_source(source.get(), place);
    }
    // The survey read the directory to its end.
    if (outcome.ok() && lseek(source.get(), 0, SEEK_SET) != 0) {
        outcome = Outcome::failed("reading the source", row.first, errno);
    }
    return outcome.ok() ? replace_tree(source.get(), top, place) : outcome;
}

}  // namespace ad_mounter
