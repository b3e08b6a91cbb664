#include "messages.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* tool_name = "ad-mounter";

// One line, put together whole so that it leaves in one write. Bytes that a
// terminal would act on are shown as '?'.
class Line {
public:
    Line& add(const char* text) {
        for (; *text != '\0' && used_ < capacity; ++text) {
            const auto byte = static_cast<unsigned char>(*text);
            text_[used_++] = byte < 0x20 || byte >= 0x7f ? '?' : *text;
        }
        return *this;
    }

    void write_to(int fd) {
        text_[used_++] = '\n';
        // Nobody is left to tell when this fails.
        (void)!write(fd, text_, used_);
    }

private:
    static constexpr size_t capacity = 1023;
    char text_[capacity + 1];
    size_t used_ = 0;
};

}  // namespace

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

Outcome Outcome::failed(const char* step, const char* path, int error) {
    return failed(status_of_errno(error), step, path, error);
}

Outcome Outcome::failed(int status, const char* step, const char* path, int error) {
    if (error == ELOOP) {
        return refused(EX_NOPERM, step, path, "a symbolic link is in the way");
    }
    // Not strerror(): that one drags the message catalogues in.
    const char* reason = strerrordesc_np(error);
    return refused(status, step, path, reason != nullptr ? reason : "unknown error");
}

Outcome Outcome::refused(int status, const char* step, const char* path, const char* reason) {
    Outcome outcome;
    outcome.status_ = status;
    outcome.step_ = step;
    outcome.path_ = path;
    outcome.reason_ = reason;
    return outcome;
}

const char* remember_path(int directory, const char* name) {
    static char path[PATH_MAX + NAME_MAX];
    static std::atomic_flag taken = ATOMIC_FLAG_INIT;
    if (taken.test_and_set()) {
        return path;
    }
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", directory);
    ssize_t length = readlink(link, path, PATH_MAX - 1);
    if (length < 0) {
        length = 0;
    } else {
        path[length++] = '/';
    }
    snprintf(path + length, sizeof path - static_cast<size_t>(length), "%s", name);
    return path;
}

void report(const char* verb, const Outcome& outcome) {
    Line line;
    line.add(tool_name).add(": ").add(verb).add(": ").add(outcome.step()).add(": ");
    line.add(outcome.path()).add(": ").add(outcome.reason()).write_to(STDERR_FILENO);
}

void report_usage(const char* reason, const char* word) {
    Line line;
    line.add(tool_name).add(": ").add(reason);
    if (word != nullptr) {
        line.add(": ").add(word);
    }
    line.add("; see --help").write_to(STDERR_FILENO);
}

bool print(const char* text) {
    size_t left = strlen(text);
    while (left > 0) {
        const ssize_t written = write(STDOUT_FILENO, text, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        text += written;
        left -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace ad_mounter
