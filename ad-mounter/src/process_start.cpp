#include "process_start.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

bool open_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            continue;
        }
        // Gets the lowest free number, which is `fd`.
        if (errno != EBADF || open("/dev/null", O_RDWR) != fd) {
            return false;
        }
    }
    return true;
}

bool close_other_descriptors() {
    constexpr unsigned first = STDERR_FILENO + 1;
    // Since Linux 5.9.
    if (syscall(SYS_close_range, first, ~0U, 0U) == 0) {
        return true;
    }
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    for (rlim_t fd = first; fd < limit.rlim_max && fd < (1U << 20); ++fd) {
        close(static_cast<int>(fd));
    }
    return true;
}

// SIGPIPE would end the run instead of making a write fail.
bool reset_signals() {
    sigset_t none;
    sigemptyset(&none);
    return signal(SIGPIPE, SIG_IGN) != SIG_ERR && signal(SIGCHLD, SIG_DFL) != SIG_ERR &&
           sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

}  // namespace

Outcome prepare_process() {
    umask(022);
    if (open_standard_descriptors() && close_other_descriptors() && clearenv() == 0 &&
        chdir("/") == 0 && reset_signals()) {
        return {};
    }
    return Outcome::failed(EX_OSERR, "set up", "process", errno);
}

void block_signals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
}

}  // namespace ad_mounter
