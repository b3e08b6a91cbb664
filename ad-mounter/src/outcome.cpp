#include "outcome.h"

#include "base/errno_text.h"
#include "path.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>

#include <unistd.h>

namespace ad_mounter {

namespace {

int status_of_errno(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
        case ELOOP:
            return EX_NOPERM;
        case EBUSY:
        case EAGAIN:
        case ETXTBSY:
        case EXDEV:
            return EX_TEMPFAIL;
        case EIO:
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return EX_IOERR;
        case EROFS:
        case EEXIST:
        case ENOTDIR:
        case EISDIR:
        case ENOTEMPTY:
            return EX_CANTCREAT;
        case ENOENT:
            return EX_NOINPUT;
        default:
            return EX_OSERR;
    }
}

// The full path of an entry. There is room for one: only the first failure is reported, so the
// first call fills it and later ones return the same text.
const char* entry_path(int directory, const char* name) {
    static char path[PATH_MAX + NAME_MAX];
    static std::atomic_flag filled = ATOMIC_FLAG_INIT;
    if (filled.test_and_set()) {
        return path;
    }
    ssize_t length = readlink(DescriptorPath(directory).text, path, PATH_MAX - 1);
    if (length < 0) {
        length = 0;
    } else if (length > 1) {
        path[length++] = '/';
    }
    snprintf(path + length, sizeof path - static_cast<size_t>(length), "%s", name);
    return path;
}

}  // namespace

Outcome Outcome::failed(const char* step, const char* path, int error) {
    return failed(status_of_errno(error), step, path, error);
}

Outcome Outcome::failed(int status, const char* step, const char* path, int error) {
    // The kernel's text, "Too many levels of symbolic links", would mislead: one is too many.
    return refused(status, step, path,
                   error == ELOOP ? "symbolic link not allowed" : base::errno_text(error));
}

Outcome Outcome::refused(int status, const char* step, const char* path, const char* reason) {
    Outcome outcome;
    outcome.status_ = status;
    outcome.step_ = step;
    outcome.path_ = path;
    outcome.reason_ = reason;
    return outcome;
}

Outcome Outcome::entry_failed(const char* step, int directory, const char* name, int error) {
    return failed(step, entry_path(directory, name), error);
}

Outcome Outcome::entry_refused(int status, const char* step, int directory, const char* name,
                               const char* reason) {
    return refused(status, step, entry_path(directory, name), reason);
}

}  // namespace ad_mounter
