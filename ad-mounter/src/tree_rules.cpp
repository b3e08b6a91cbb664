#include "tree_rules.h"

#include "path.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr int max_depth = 64;

}  // namespace

const char* mode_rejection(mode_t mode) {
    if (S_ISLNK(mode)) {
        return nullptr;
    }
    if (!S_ISREG(mode) && !S_ISDIR(mode)) {
        return "not a regular file, directory or symbolic link";
    }
    return (mode & (S_ISUID | S_ISGID)) != 0 ? "set-user-ID or set-group-ID bit" : nullptr;
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

Outcome read_inner_link(int directory, const char* name, int depth, char (&target)[PATH_MAX]) {
    const ssize_t length = readlinkat(directory, name, target, sizeof target - 1);
    if (length < 0) {
        return Outcome::entry_failed("read symbolic link", directory, name, errno);
    }
    target[length] = '\0';
    return link_stays_inside(target, depth)
               ? Outcome()
               : reject_entry(directory, name, "symbolic link leaves the tree");
}

Outcome open_subdirectory(int parent, const char* name, int depth, base::UniqueFd& directory) {
    if (depth > max_depth) {
        return reject_entry(parent, name, "directories nested too deeply");
    }
    directory.reset(open_entry(parent, name, O_RDONLY | O_DIRECTORY, Mounts::stay));
    return directory ? Outcome() : Outcome::entry_failed("open directory", parent, name, errno);
}

Outcome reject_entry(int directory, const char* name, const char* reason) {
    return Outcome::entry_refused(EX_DATAERR, "copy", directory, name, reason);
}

}  // namespace ad_mounter
