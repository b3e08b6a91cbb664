#include "mounted_image.h"

#include "mount_state.h"
#include "operations.h"
#include "path.h"
#include "target.h"
#include "trusted_path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

// Reads the status of the stored image, which only root may be able to change.
Outcome inspect_stored_image(struct stat& status) {
    Target stored;
    TRY(open_parent(stored_image, stored));
    const int error = target_status(stored, status);
    if (error != 0) {
        return Outcome::failed("stat", stored_image, error);
    }
    const char* reason = S_ISREG(status.st_mode) ? untrusted_reason(status) : "not a regular file";
    return reason == nullptr ? Outcome()
                             : Outcome::refused(EX_NOPERM, "install from", stored_image, reason);
}

// Opens the top directory of the mounted image.
Outcome open_top(const char* path, base::UniqueFd& top) {
    struct stat image;
    TRY(inspect_stored_image(image));
    Target target;
    TRY(open_parent(detail::mount_point, target));
    MountState state = MountState::nothing;
    TRY(inspect_mount_point(target, &image, state, top));
    switch (state) {
        case MountState::current:
            return {};
        case MountState::nothing:
            return Outcome::refused(EX_NOINPUT, "install from", path, "no image is mounted");
        case MountState::stale:
            return Outcome::refused(EX_TEMPFAIL, "install from", path,
                                    "the mounted image is not the stored one");
        default:
            return Outcome::refused(EX_NOPERM, "install from", path,
                                    "something else is mounted there");
    }
}

}  // namespace

Outcome open_mounted(const char* path, int flags, base::UniqueFd& fd) {
    TRY(open_top(path, fd));
    const char* rest = path + strlen(detail::mount_point);
    while (*rest == '/') {
        const char* end = strchrnul(rest + 1, '/');
        char name[NAME_MAX + 1];
        snprintf(name, sizeof name, "%.*s", static_cast<int>(end - rest - 1), rest + 1);
        fd.reset(
            open_entry(fd.get(), name, *end == '\0' ? flags : O_PATH | O_DIRECTORY, Mounts::stay));
        if (!fd) {
            return Outcome::failed("open", path, errno);
        }
        rest = end;
    }
    return {};
}

}  // namespace ad_mounter
