/**
 * The platform log on the system's log socket.
 *
 * A line is the datagram that syslog(3) sends, but sent without syslog(3), which
 * takes a lock that a signal handler must not wait for, blocks for as long as
 * the logger hangs, and does not report that nobody listens. The datagram has no
 * time stamp: whoever reads the socket adds its own.
 */
#include "platform_log.h"

#include "base/file_io.h"
#include "base/unique_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace linux_platform {

namespace {

constexpr char log_socket_path[] = "/dev/log";

/** Longer lines are truncated; the daemon's are shorter. */
constexpr size_t line_size = 8192;
constexpr size_t max_tag_size = 256;

constexpr char escape = '\033';

/** How long a line waits for a logger that hangs: send_attempts minus one times send_pause. */
constexpr int send_attempts = 10;
constexpr timespec send_pause = {0, 5000000};

struct Priority {
    int platform;
    int syslog;
};

constexpr Priority priorities[] = {
    {PLATFORM_LOG_NORMAL, LOG_INFO},
    {PLATFORM_LOG_ERROR, LOG_ERR},
};
constexpr int other_priority = LOG_NOTICE;

int syslog_priority(int priority) {
    for (const Priority& known : priorities) {
        if (known.platform == priority) {
            return known.syslog;
        }
    }
    return other_priority;
}

/**
 * The process's one socket, made for the first line. It is not connected, so
 * that the logger may come and go. Negative when it cannot be made.
 */
int log_socket() {
    static std::atomic<int> shared{-1};
    const int known = shared;
    if (known >= 0) {
        return known;
    }
    base::UniqueFd made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int none = -1;
    if (made && !shared.compare_exchange_strong(none, made.get())) {
        return none;
    }
    return made.release();
}

/**
 * Removes colour sequences, ESC [ parameters m, in place: the daemon writes one into
 * each line, and a log shows them as "#033[0m".
 *
 * @return the size of what remains
 */
size_t strip_colours(char* text, size_t size) {
    const char* const end = text + size;
    char* out = text;
    for (const char* in = text; in != end;) {
        const char* after = in;
        if (*in == escape && end - in > 1 && in[1] == '[') {
            after = std::find_if_not(
                in + 2, end, [](char c) { return (c >= '0' && c <= '9') || c == ';' || c == ':'; });
        }
        if (after != in && after != end && *after == 'm') {
            in = after + 1;
        } else {
            *out++ = *in++;
        }
    }
    return static_cast<size_t>(out - text);
}

bool send_once(int socket, const char* line, size_t size) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, log_socket_path, sizeof log_socket_path);
    ssize_t sent = 0;
    do {
        sent = sendto(socket, line, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool send_line(const char* line, size_t size) {
    // Once a line has waited in vain, the following ones do not wait.
    static std::atomic<bool> is_stalled{false};
    const int socket = log_socket();
    if (socket < 0) {
        return false;
    }
    const int attempts = is_stalled ? 1 : send_attempts;
    for (int i = 0; i < attempts; ++i) {
        if (i > 0) {
            nanosleep(&send_pause, nullptr);
        }
        if (send_once(socket, line, size)) {
            is_stalled = false;
            return true;
        }
        if (errno != EAGAIN) {
            return false;
        }
    }
    is_stalled = true;
    return false;
}

}  // namespace

}  // namespace linux_platform

extern "C" int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format,
                            ...) {
    using namespace linux_platform;
    // A signal handler must leave errno as the interrupted code expects it.
    const int saved_errno = errno;
    char line[line_size];
    const auto tag_at = static_cast<size_t>(
        snprintf(line, sizeof line, "<%d>", LOG_DAEMON | syslog_priority(priority)));
    const int tag_size = snprintf(line + tag_at, max_tag_size, "%s: ", tag != nullptr ? tag : "-");
    const size_t begin = tag_at + std::min(static_cast<size_t>(tag_size), max_tag_size - 1);

    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line + begin, sizeof line - begin, format, arguments);
    va_end(arguments);
    size_t size = begin;
    if (length >= 0) {
        size = std::min(begin + static_cast<size_t>(length), sizeof line - 1);
        size = begin + strip_colours(line + begin, size - begin);
        if (!send_line(line, size)) {
            // Overwrites the terminating zero, which is no longer needed.
            if (line[size - 1] != '\n') {
                line[size++] = '\n';
            }
            base::write_full(STDERR_FILENO, line + tag_at, size - tag_at);
        }
    }
    errno = saved_errno;
    return length < 0 ? -1 : static_cast<int>(size - tag_at);
}
