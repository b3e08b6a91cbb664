#include "transfer.h"

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "curl_transfer.h"
#include "result.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace ad_agent {
namespace {

/** Time for the process to load libcurl and to report a time-out by itself. */
constexpr int grace_seconds = 2;

/** Blocks all signals, so that the host's handlers run only while it waits in ppoll(2). */
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &previous_);
    }
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

    /** The mask to wait with. The end of the transfer's process is no reason to stop. */
    sigset_t waiting_mask() const {
        sigset_t mask = previous_;
        sigaddset(&mask, SIGCHLD);
        return mask;
    }

private:
    sigset_t previous_ = {};
};

/** Kills and reaps its process when it goes out of scope, unless wait() was called. */
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid) : pid_(pid) {}
    ~ChildProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /** Reaps the process. Returns the number of the signal that killed it, or 0. */
    int wait() {
        int status = 0;
        pid_t result = 0;
        do {
            result = waitpid(pid_, &status, 0);
        } while (result < 0 && errno == EINTR);
        const bool was_killed = result == pid_ && WIFSIGNALED(status);
        pid_ = 0;
        return was_killed ? WTERMSIG(status) : 0;
    }

private:
    pid_t pid_;
};

/** Detaches a forked process from the host's signal handlers and ties it to the host's life. */
void become_transfer_process(pid_t host) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A host that died before prctl(2) sends no signal any more.
    if (getppid() != host) {
        _exit(EXIT_FAILURE);
    }
    for (int number = 1; number < NSIG; ++number) {
        signal(number, SIG_DFL);
    }
    signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

constexpr char is_modified_mark = 'm';
constexpr char not_modified_mark = 'n';

/** The process's report: a character for the outcome, then the entity tag or the reason. */
std::string encode(const TransferResult& result) {
    if (!result) {
        return std::to_string(static_cast<int>(result.error().fault)) + result.error().message;
    }
    return (result->is_modified ? is_modified_mark : not_modified_mark) + result->etag;
}

tl::unexpected<TransferError> failed(const std::string& message) {
    return tl::unexpected<TransferError>({TransferFault::failed, message});
}

TransferResult decode(const std::string& report) {
    if (report.empty()) {
        return failed("transfer process exited unexpectedly");
    }
    const std::string text = report.substr(1);
    if (report[0] == is_modified_mark || report[0] == not_modified_mark) {
        return Response{report[0] == is_modified_mark, text};
    }
    return tl::unexpected<TransferError>({static_cast<TransferFault>(report[0] - '0'), text});
}

/** Never returns: the host's exit handlers and buffered output are not for this process. */
[[noreturn]] void run_transfer_process(const TransferRequest& request, int pipe, pid_t host) {
    become_transfer_process(host);
    const std::string report = encode(run_curl_transfer(request));
    const bool is_reported = base::write_full(pipe, report.data(), report.size());
    _exit(is_reported ? EXIT_SUCCESS : EXIT_FAILURE);
}

/** Reads the process's report up to its end, which is when the pipe closes. */
Result<std::string> read_report(int pipe, const sigset_t& waiting_mask, int seconds) {
    const gint64 deadline = g_get_monotonic_time() + gint64{seconds} * G_USEC_PER_SEC;
    std::string report;
    for (;;) {
        const gint64 left = std::max<gint64>(deadline - g_get_monotonic_time(), 0);
        const timespec timeout = {static_cast<time_t>(left / G_USEC_PER_SEC),
                                  static_cast<long>(left % G_USEC_PER_SEC * 1000)};
        pollfd waited = {pipe, POLLIN, 0};
        const int ready = ppoll(&waited, 1, &timeout, &waiting_mask);
        if (ready < 0) {
            return errno == EINTR ? failure("interrupted by a signal")
                                  : errno_failure("failed to wait for the transfer process");
        }
        if (ready == 0) {
            return failure("no result within " + std::to_string(seconds) + " seconds");
        }
        std::array<char, 512> buffer = {};
        const ssize_t length = read(pipe, buffer.data(), buffer.size());
        if (length < 0) {
            return errno_failure("failed to read from the transfer process");
        }
        if (length == 0) {
            return report;
        }
        report.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

/** Runs the transfer's process. Returns its report. */
Result<std::string> run_process(const TransferRequest& request) {
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return errno_failure("failed to create a pipe");
    }
    const base::UniqueFd reading(ends[0]);
    base::UniqueFd writing(ends[1]);

    const BlockedSignals signals;
    const pid_t host = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        return errno_failure("failed to fork");
    }
    if (pid == 0) {
        run_transfer_process(request, writing.get(), host);
    }

    ChildProcess child(pid);
    writing.reset();
    auto report =
        read_report(reading.get(), signals.waiting_mask(), request.total_timeout + grace_seconds);
    if (!report) {
        return report;
    }
    const int signal_number = child.wait();
    if (signal_number != 0) {
        return failure("transfer process killed by signal " + std::to_string(signal_number));
    }
    return report;
}

}  // namespace

TransferResult transfer(const TransferRequest& request) {
    const auto report = run_process(request);
    TransferResult result = report ? decode(*report) : failed(report.error().message);
    if (!result) {
        result.error().message.insert(0, request.url + ": ");
    }
    return result;
}

}  // namespace ad_agent
