#include "landlock.h"

#include "base/unique_fd.h"
#include "path.h"
#include "target.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr uint64_t reading = LANDLOCK_ACCESS_FS_READ_FILE;
constexpr uint64_t changing = reading | LANDLOCK_ACCESS_FS_WRITE_FILE |
                              LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
                              LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR |
                              LANDLOCK_ACCESS_FS_MAKE_SYM;
// Reading directories stays allowed: those on the way to a path are opened for reading, too.
constexpr uint64_t restricted = changing | LANDLOCK_ACCESS_FS_EXECUTE |
                                LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
                                LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_SOCK;

// Mounts and descriptors, public keys and the name of the product: nothing secret.
constexpr const char* readable[] = {"/proc", "/usr/lib/ad-mounter"};

// A copy's source, and what is behind it.
constexpr const char* sources[] = {detail::mount_point, detail::image_store, "/dev"};

// Opens `path` or, where it is missing, the deepest directory on the way to it that exists.
int open_existing(const char* path) {
    base::UniqueFd deepest;
    const int found = walk_path(path, [&deepest](const Component& component) {
        base::UniqueFd fd(
            open_entry(component.parent, component.name, O_PATH | O_DIRECTORY, Mounts::cross));
        if (fd) {
            deepest.reset(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
        }
        return fd.release();
    });
    return found >= 0 ? found : deepest.release();
}

// The directory that a target is created in. Those directories of the table that are created
// along with it have temporary names beside their own.
void changed_directory(const char* target, char (&directory)[PATH_MAX]) {
    parent_path(target, directory);
    while (find_directory(directory) != nullptr) {
        char parent[PATH_MAX];
        parent_path(directory, parent);
        memcpy(directory, parent, sizeof directory);
    }
}

class Ruleset {
public:
    // False where the kernel has no Landlock, or on an error.
    bool create() {
        landlock_ruleset_attr attributes = {};
        attributes.handled_access_fs = restricted;
        fd_.reset(static_cast<int>(
            syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
        return static_cast<bool>(fd_);
    }

    // `shown` is the path for error messages.
    Outcome allow(const char* path, const char* shown, uint64_t access) {
        const base::UniqueFd directory(open_existing(path));
        landlock_path_beneath_attr rule = {};
        rule.allowed_access = access;
        rule.parent_fd = directory.get();
        return directory && syscall(SYS_landlock_add_rule, fd_.get(), LANDLOCK_RULE_PATH_BENEATH,
                                    &rule, 0) == 0
                   ? Outcome()
                   : Outcome::failed("restrict access to", shown, errno);
    }

    Outcome enforce() {
        return syscall(SYS_landlock_restrict_self, fd_.get(), 0) == 0
                   ? Outcome()
                   : Outcome::failed(EX_OSERR, "restrict", "access to paths", errno);
    }

private:
    base::UniqueFd fd_;
};

Outcome allow_operation(Ruleset& ruleset, const Operation& operation) {
    char directory[PATH_MAX];
    changed_directory(operation.target, directory);
    TRY(ruleset.allow(directory, operation.target, changing));
    if (operation.verb == Verb::copy_library || operation.verb == Verb::copy_tree) {
        for (const char* path : sources) {
            TRY(ruleset.allow(path, path, reading));
        }
    }
    return {};
}

}  // namespace

Outcome restrict_paths(const Operation& request) {
    Ruleset ruleset;
    if (!ruleset.create()) {
        return errno == ENOSYS || errno == EOPNOTSUPP
                   ? Outcome()
                   : Outcome::failed(EX_OSERR, "restrict", "access to paths", errno);
    }
    for (const char* path : readable) {
        TRY(ruleset.allow(path, path, reading));
    }
    TRY(ruleset.allow(run_directory, run_directory, changing));
    for (const Operation& operation : operations) {
        if (same_request(operation, request)) {
            TRY(allow_operation(ruleset, operation));
        }
    }
    return ruleset.enforce();
}

}  // namespace ad_mounter
