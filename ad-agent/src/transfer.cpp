#include "transfer.h"

#include "curl_transfer.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace ad_agent {
namespace {

/** Seconds that the process gets to load libcurl and to tell of a time-out itself. */
constexpr int GRACE_SECONDS = 2;

constexpr gint64 MICROSECONDS = 1000000;

std::string errno_text(const char* step) { return std::string(step) + ": " + g_strerror(errno); }

/** Holds all signals back, so that a handler runs only where the host waits. */
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &m_before);
    }
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    /** The mask to wait with. The end of the transfer's process is no reason to stop. */
    sigset_t waiting_mask() const {
        sigset_t mask = m_before;
        sigaddset(&mask, SIGCHLD);
        return mask;
    }

private:
    sigset_t m_before = {};
};

/** The transfer's process, killed and reaped at the end of its scope if it is still there. */
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid) : m_pid(pid) {}
    ~ChildProcess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            wait();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /** Waits for its end. @return the number of the signal that killed it, or 0 */
    int wait() {
        int status = 0;
        pid_t result = 0;
        do {
            result = waitpid(m_pid, &status, 0);
        } while (result < 0 && errno == EINTR);
        const bool killed = result == m_pid && WIFSIGNALED(status);
        m_pid = 0;
        return killed ? WTERMSIG(status) : 0;
    }

private:
    pid_t m_pid;
};

/** Makes the forked process one that the host's handlers and its death cannot surprise. */
void become_transfer_process(pid_t host) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != host) _exit(EXIT_FAILURE);
    for (int number = 1; number < NSIG; ++number) signal(number, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/**
 * What the transfer's process says in the end: a digit for the end, then the
 * validator or the reason.
 */
std::string encode(const TransferResult& result) {
    const bool complete = result.end == TransferEnd::COMPLETE;
    return std::to_string(static_cast<int>(result.end)) +
           (complete ? result.validator : result.error);
}

TransferResult decode(const std::string& answer) {
    TransferResult result;
    if (answer.empty()) {
        result.error = "its process ended early";
        return result;
    }
    result.end = static_cast<TransferEnd>(answer[0] - '0');
    (result.end == TransferEnd::COMPLETE ? result.validator : result.error) = answer.substr(1);
    return result;
}

TransferResult failure(const std::string& error) { return {TransferEnd::FAILED, "", error}; }

/** Never returns: the host's exit handlers and its unwritten output are not ours to run. */
[[noreturn]] void run_transfer_process(const TransferRequest& request, int pipe, pid_t host) {
    become_transfer_process(host);
    const std::string answer = encode(run_curl_transfer(request));
    const bool told = write(pipe, answer.data(), answer.size()) >= 0;
    _exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
}

/** Reads the process's answer up to its end, which is when the pipe closes. */
bool read_answer(int pipe, const sigset_t& waiting_mask, int seconds, std::string& answer,
                 std::string& error) {
    const gint64 deadline = g_get_monotonic_time() + seconds * MICROSECONDS;
    std::array<char, 512> buffer = {};
    for (;;) {
        const gint64 left = std::max<gint64>(deadline - g_get_monotonic_time(), 0);
        const timespec timeout = {left / MICROSECONDS, left % MICROSECONDS * 1000};
        pollfd waited = {pipe, POLLIN, 0};
        const int ready = ppoll(&waited, 1, &timeout, &waiting_mask);
        if (ready < 0) {
            error = errno == EINTR ? "interrupted by a signal" : errno_text("ppoll");
            return false;
        }
        if (ready == 0) {
            error = "not done within " + std::to_string(seconds) + " seconds";
            return false;
        }
        const ssize_t length = read(pipe, buffer.data(), buffer.size());
        if (length < 0) {
            error = errno_text("read");
            return false;
        }
        if (length == 0) return true;
        answer.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

TransferResult run_transfer(const TransferRequest& request) {
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return failure(errno_text("pipe"));
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);

    const BlockedSignals signals;
    const pid_t host = getpid();
    const pid_t pid = fork();
    if (pid < 0) return failure(errno_text("fork"));
    if (pid == 0) run_transfer_process(request, writing.get(), host);

    ChildProcess child(pid);
    writing.reset();
    std::string answer;
    std::string error;
    if (!read_answer(reading.get(), signals.waiting_mask(), request.total_timeout + GRACE_SECONDS,
                     answer, error))
        return failure(error);
    const int killer = child.wait();
    if (killer != 0) return failure("its process was killed by signal " + std::to_string(killer));
    return decode(answer);
}

}  // namespace

TransferResult transfer(const TransferRequest& request) {
    TransferResult result = run_transfer(request);
    if (!result.error.empty()) result.error.insert(0, request.url + ": ");
    return result;
}

}  // namespace ad_agent
