#include "run_lock.h"

#include "pinned_path.h"
#include "table.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "taking the lock";
constexpr unsigned patience_seconds = 30;

void wake_up(int) {}

Outcome open_run_directory(UniqueFd& directory) {
    Place place;
    int error = pin_place(run_directory, place);
    if (error != 0) {
        return Outcome::failed(EX_OSERR, step, run_directory, error);
    }
    if (mkdirat(place.directory.get(), place.name, 0700) != 0 && errno != EEXIST) {
        return Outcome::failed(EX_CANTCREAT, step, run_directory, errno);
    }
    directory.reset(
        open_beneath(place.directory.get(), place.name, O_RDONLY | O_DIRECTORY, Mounts::cross));
    struct stat status;
    if (!directory.valid() || fstat(directory.get(), &status) != 0) {
        return Outcome::failed(step, run_directory, errno);
    }
    if (status.st_uid != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return Outcome::refused(EX_NOPERM, step, run_directory, "it is not root's alone");
    }
    return {};
}

// 0 or an errno; EAGAIN when the patience ended.
int wait_for_lock(int fd) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return 0;
    }
    if (errno != EWOULDBLOCK) {
        return errno;
    }
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = wake_up;
    if (sigaction(SIGALRM, &action, nullptr) != 0) {
        return errno;
    }
    alarm(patience_seconds);
    const int error = flock(fd, LOCK_EX) == 0 ? 0 : errno;
    alarm(0);
    return error == EINTR ? EAGAIN : error;
}

}  // namespace

Outcome RunLock::take() {
    UniqueFd directory;
    const Outcome opened = open_run_directory(directory);
    if (!opened.ok()) {
        return opened;
    }
    file_.reset(openat(directory.get(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_.valid()) {
        return Outcome::failed(EX_CANTCREAT, step, run_directory, errno);
    }
    const int error = wait_for_lock(file_.get());
    if (error == EAGAIN) {
        return Outcome::refused(EX_TEMPFAIL, step, run_directory, "another run holds it");
    }
    return error != 0 ? Outcome::failed(EX_OSERR, step, run_directory, error) : Outcome();
}

}  // namespace ad_mounter
