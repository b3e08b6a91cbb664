#include "run_lock.h"

#include "operations.h"
#include "path.h"
#include "target.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// The timer repeats: its first signal may come just before flock(2) waits.
constexpr itimerval lock_timeout = {{0, 100'000}, {30, 0}};
constexpr itimerval no_timeout = {};

void interrupt(int) {}

Outcome open_run_directory(base::UniqueFd& directory) {
    Target target;
    TRY(open_parent(run_directory, target));
    if (mkdirat(target.directory.get(), target.name, 0700) != 0 && errno != EEXIST) {
        return Outcome::failed("create", run_directory, errno);
    }
    directory.reset(
        open_entry(target.directory.get(), target.name, O_RDONLY | O_DIRECTORY, Mounts::cross));
    struct stat status;
    if (!directory || fstat(directory.get(), &status) != 0) {
        return Outcome::failed("open", run_directory, errno);
    }
    if (status.st_uid != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return Outcome::refused(EX_NOPERM, "use", run_directory,
                                "accessible to users other than root");
    }
    return {};
}

// Returns 0 or an errno value; EAGAIN after the timeout.
int wait_for_lock(int fd) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return 0;
    }
    if (errno != EWOULDBLOCK) {
        return errno;
    }
    // Without SA_RESTART, so that the signal ends the waiting.
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = interrupt;
    if (sigaction(SIGALRM, &action, nullptr) != 0 ||
        setitimer(ITIMER_REAL, &lock_timeout, nullptr) != 0) {
        return errno;
    }
    const int error = flock(fd, LOCK_EX) == 0 ? 0 : errno;
    setitimer(ITIMER_REAL, &no_timeout, nullptr);
    return error == EINTR ? EAGAIN : error;
}

}  // namespace

Outcome RunLock::acquire() {
    base::UniqueFd directory;
    TRY(open_run_directory(directory));
    file_.reset(openat(directory.get(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_) {
        return Outcome::failed("create lock in", run_directory, errno);
    }
    const int error = wait_for_lock(file_.get());
    if (error == EAGAIN) {
        return Outcome::refused(EX_TEMPFAIL, "lock", run_directory, "held by another run");
    }
    return error == 0 ? Outcome() : Outcome::failed("lock", run_directory, error);
}

}  // namespace ad_mounter
