#include "process_start.h"

#include "base/unique_fd.h"
#include "directory_reader.h"

#include <algorithm>
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

struct Limit {
    decltype(RLIMIT_STACK) resource;
    rlim_t value;
};

constexpr Limit limits[] = {
    {RLIMIT_STACK, rlim_t{8} << 20},
    {RLIMIT_CPU, RLIM_INFINITY},
    {RLIMIT_RTTIME, RLIM_INFINITY},
    {RLIMIT_AS, RLIM_INFINITY},
    {RLIMIT_DATA, RLIM_INFINITY},
    {RLIMIT_FSIZE, RLIM_INFINITY},
    {RLIMIT_NPROC, RLIM_INFINITY},
    {RLIMIT_MEMLOCK, rlim_t{64} << 10},
    // Each level of a tree takes up to two in each of two threads.
    {RLIMIT_NOFILE, 1024},
    {RLIMIT_CORE, 0},
};

bool set_limit(const Limit& limit) {
    rlimit wanted = {limit.value, limit.value};
    if (setrlimit(limit.resource, &wanted) == 0) {
        return true;
    }
    // Containers may lack CAP_SYS_RESOURCE.
    rlimit inherited;
    if (errno != EPERM || getrlimit(limit.resource, &inherited) != 0) {
        return false;
    }
    wanted.rlim_max = inherited.rlim_max;
    wanted.rlim_cur = std::min(limit.value, inherited.rlim_max);
    return setrlimit(limit.resource, &wanted) == 0;
}

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

// Before Linux 5.9. By /proc, since descriptors outlive a lowered limit.
bool close_listed_descriptors(int first) {
    // Makes room for the directory's own descriptor.
    close(first);
    const base::UniqueFd directory(open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        return false;
    }
    DirectoryReader reader(directory.get());
    DirectoryEntry entry;
    while (reader.next(entry)) {
        const int fd = static_cast<int>(strtol(entry.name, nullptr, 10));
        if (fd >= first && fd != directory.get()) {
            close(fd);
        }
    }
    return reader.error() == 0;
}

bool close_other_descriptors() {
    constexpr int first = STDERR_FILENO + 1;
    return syscall(SYS_close_range, first, ~0U, 0U) == 0 || close_listed_descriptors(first);
}

// SIGPIPE would end the run instead of making a write fail.
bool reset_signals() {
    sigset_t none;
    sigemptyset(&none);
    return signal(SIGPIPE, SIG_IGN) != SIG_ERR && signal(SIGCHLD, SIG_DFL) != SIG_ERR &&
           sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

}  // namespace

Outcome reset_resource_limits() {
    for (const Limit& limit : limits) {
        if (!set_limit(limit)) {
            return Outcome::failed(EX_OSERR, "set", "resource limits", errno);
        }
    }
    return {};
}

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
