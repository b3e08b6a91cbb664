#include "remove.h"

#include "directory_reader.h"
#include "mounted.h"
#include "pinned_path.h"
#include "shared_entries.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

// Each level holds one descriptor and one piece of the stack.
constexpr int deepest = 128;

Outcome remove_contents(int directory, int depth);

Outcome share_removal(int directory);

Outcome remove_directory(int parent, const char* name, int depth) {
    if (depth > deepest) {
        return Outcome::refused(EX_OSERR, "removing", remember_path(parent, name),
                                "directories are nested too deeply");
    }
    {
        const UniqueFd directory(open_beneath(parent, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
        if (!directory.valid()) {
            if (errno == ENOENT) {
                return {};
            }
            return errno == EXDEV
                       ? Outcome::refused(EX_TEMPFAIL, "removing", remember_path(parent, name),
                                          "something is mounted there")
                       : Outcome::failed("opening the directory", remember_path(parent, name),
                                         errno);
        }
        const Outcome outcome =
            depth == 1 ? share_removal(directory.get()) : remove_contents(directory.get(), depth);
        if (!outcome.ok()) {
            return outcome;
        }
    }
    if (unlinkat(parent, name, AT_REMOVEDIR) != 0 && errno != ENOENT) {
        return Outcome::failed("removing the directory", remember_path(parent, name), errno);
    }
    return {};
}

Outcome remove_entry(int parent, const DirectoryEntry& entry, int depth) {
    if (entry.type != DT_DIR) {
        if (unlinkat(parent, entry.name, 0) == 0 || errno == ENOENT) {
            return {};
        }
        if (errno != EISDIR) {
            return Outcome::failed("removing", remember_path(parent, entry.name), errno);
        }
    }
    return remove_directory(parent, entry.name, depth + 1);
}

Outcome remove_contents(int directory, int depth) {
    DirectoryReader reader(directory);
    DirectoryEntry entry;
    while (reader.next(entry)) {
        const Outcome outcome = remove_entry(directory, entry, depth);
        if (!outcome.ok()) {
            return outcome;
        }
    }
    if (reader.error() != 0) {
        return Outcome::failed("reading the directory", remember_path(directory, "."),
                               reader.error());
    }
    return {};
}

Outcome share_removal(int directory) {
    const auto work = [directory](const DirectoryEntry& entry, int) {
        return remove_entry(directory, entry, 1);
    };
    return share_entries(directory, work);
}

// Out of the way under its other name first: what is left of a run that is cut
// short is never half a tree in the old place.
Outcome remove_tree(const Place& place) {
    if (mounted_below(place.path)) {
        return Outcome::refused(EX_TEMPFAIL, "removing", place.path, "something is mounted there");
    }
    const SiblingName old = old_name(place.name);
    if (renameat(place.directory.get(), place.name, place.directory.get(), old.text) == 0) {
        return discard(place.directory.get(), old.text, place.path);
    }
    // An overlay may refuse to rename what its lower layer holds.
    if (errno == EXDEV) {
        return discard(place.directory.get(), place.name, place.path);
    }
    return Outcome::failed("renaming out of the way", place.path, errno);
}

}  // namespace

Outcome discard(int parent, const char* name, const char* path) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
        return {};
    }
    const int error = errno;
    struct stat status;
    // A read-only file system complains before it looks whether there is anything.
    if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
        return {};
    }
    if (error != EISDIR) {
        return Outcome::failed("removing", path, error);
    }
    return remove_directory(parent, name, 1);
}

Outcome remove(const Row& row) {
    Place place;
    int error = pin_place(row.target, place);
    if (error == ENOENT) {
        return {};
    }
    if (error != 0) {
        return Outcome::failed("opening the directory", row.target, error);
    }
    const SiblingName leftovers[] = {aside_name(place.name), old_name(place.name)};
    for (const SiblingName& leftover : leftovers) {
        const Outcome outcome = discard(place.directory.get(), leftover.text, row.target);
        if (!outcome.ok()) {
            return outcome;
        }
    }
    struct stat status;
    if (fstatat(place.directory.get(), place.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? Outcome() : Outcome::failed("looking at", row.target, errno);
    }
    if (S_ISLNK(status.st_mode)) {
        return Outcome::failed("removing", row.target, ELOOP);
    }
    if (row.kind == Kind::tree) {
        return S_ISDIR(status.st_mode) ? remove_tree(place)
                                       : Outcome::failed("removing", row.target, ENOTDIR);
    }
    if (unlinkat(place.directory.get(), place.name, 0) != 0 && errno != ENOENT) {
        return Outcome::failed("removing", row.target, errno);
    }
    return {};
}

}  // namespace ad_mounter
