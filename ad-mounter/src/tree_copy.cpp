#include "tree_copy.h"

#include "copy.h"
#include "directory_reader.h"
#include "pinned_path.h"
#include "remove.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

// Each level holds two descriptors and one piece of the stack.
constexpr int deepest = 64;

Outcome refuse_entry(int directory, const char* name, const char* reason) {
    return Outcome::refused(EX_DATAERR, "copying", remember_path(directory, name), reason);
}

Outcome fail_entry(const char* step, int directory, const char* name, int error) {
    return Outcome::failed(step, remember_path(directory, name), error);
}

constexpr mode_t kept_bits = 01777;

// What the umask took away, and the sticky bit.
bool mode_needs_setting(mode_t mode) { return (mode & kept_bits & ~mode_t{0755}) != 0; }

Outcome copy_file(int from, int to, const char* name) {
    const UniqueFd source(
        openat(from, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status;
    if (!source.valid() || fstat(source.get(), &status) != 0) {
        return fail_entry("opening", from, name, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return refuse_entry(from, name, "neither file, directory nor link");
    }
    if ((status.st_mode & (S_ISUID | S_ISGID)) != 0) {
        return refuse_entry(from, name, "a set-user-ID or set-group-ID file");
    }
    const UniqueFd file(openat(to, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               status.st_mode & 0755));
    if (!file.valid()) {
        return fail_entry("making the file", to, name, errno);
    }
    int error = copy_bytes(source.get(), file.get(), static_cast<uint64_t>(status.st_size));
    if (error == 0 && mode_needs_setting(status.st_mode) &&
        fchmod(file.get(), status.st_mode & kept_bits) != 0) {
        error = errno;
    }
    return error != 0 ? fail_entry("copying", to, name, error) : Outcome();
}

Outcome copy_link(int from, int to, const char* name, int depth) {
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

Outcome copy_directory(int from, int to, int depth);

Outcome copy_subdirectory(int from, int to, const char* name, int depth) {
    if (depth > deepest) {
        return refuse_entry(from, name, "directories are nested too deeply");
    }
    const UniqueFd source(open_beneath(from, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
    struct stat status;
    if (!source.valid() || fstat(source.get(), &status) != 0) {
        return fail_entry("opening the directory", from, name, errno);
    }
    if ((status.st_mode & (S_ISUID | S_ISGID)) != 0) {
        return refuse_entry(from, name, "a set-group-ID directory");
    }
    if (mkdirat(to, name, status.st_mode & 0755) != 0) {
        return fail_entry("making the directory", to, name, errno);
    }
    const UniqueFd directory(open_beneath(to, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
    if (!directory.valid()) {
        return fail_entry("opening the directory", to, name, errno);
    }
    const Outcome outcome = copy_directory(source.get(), directory.get(), depth);
    if (!outcome.ok()) {
        return outcome;
    }
    if (mode_needs_setting(status.st_mode) &&
        fchmod(directory.get(), status.st_mode & kept_bits) != 0) {
        return fail_entry("setting the mode", to, name, errno);
    }
    return {};
}

Outcome copy_entry(int from, int to, const DirectoryEntry& entry, int depth) {
    unsigned char type = entry.type;
    if (type == DT_UNKNOWN) {
        struct stat status;
        if (fstatat(from, entry.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return fail_entry("looking at", from, entry.name, errno);
        }
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    }
    switch (type) {
        case DT_REG:
            return copy_file(from, to, entry.name);
        case DT_DIR:
            return copy_subdirectory(from, to, entry.name, depth + 1);
        case DT_LNK:
            return copy_link(from, to, entry.name, depth);
        default:
            return refuse_entry(from, entry.name, "neither file, directory nor link");
    }
}

Outcome copy_directory(int from, int to, int depth) {
    DirectoryReader reader(from);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        const Outcome outcome = copy_entry(from, to, entry, depth);
        if (!outcome.ok()) {
            return outcome;
        }
    }
    return reader.error() != 0 ? fail_entry("reading the directory", from, ".", reader.error())
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
    const Outcome copied = copy_directory(source, fresh.get(), 0);
    if (!copied.ok()) {
        return copied;
    }
    if (mode_needs_setting(top.st_mode) && fchmod(fresh.get(), top.st_mode & kept_bits) != 0) {
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
    return outcome.ok() ? replace_tree(source.get(), top, place) : outcome;
}

}  // namespace ad_mounter
