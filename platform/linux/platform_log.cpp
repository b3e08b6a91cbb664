/**
 * The platform log on the system's log socket.
 *
 * A line goes out as the datagram that syslog(3) sends, but not through it:
 * syslog(3) takes a lock, which a signal handler must not wait for, waits for
 * ever for a logger that hangs, and does not say when nobody listens. The
 * datagram has no time: every reader of the socket puts its own.
 */
#include "platform_log.h"

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

constexpr char LOG_SOCKET[] = "/dev/log";

/** The longest line, its end cut off beyond; room for what the daemon ever writes. */
constexpr size_t LINE_SIZE = 8192;
constexpr size_t MAX_TAG_SIZE = 256;

/** How long a line waits for a logger that does not read, in all: TRIES times PAUSE. */
constexpr int TRIES = 10;
constexpr timespec PAUSE = {0, 5000000};

struct Priority {
    int platform;
    int syslog;
};

constexpr Priority PRIORITIES[] = {
    {PLATFORM_LOG_NORMAL, LOG_INFO},
    {PLATFORM_LOG_ERROR, LOG_ERR},
};
constexpr int OTHER_PRIORITY = LOG_NOTICE;

int syslog_priority(int priority) {
    for (const Priority& known : PRIORITIES) {
        if (known.platform == priority) return known.syslog;
    }
    return OTHER_PRIORITY;
}

/** The one socket, made at the first line. Not connected, so a logger may come and go. */
int log_socket() {
    static std::atomic<int> s_socket{-1};
    const int known = s_socket;
    if (known >= 0) return known;
    const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (made < 0) return made;
    int none = -1;
    if (s_socket.compare_exchange_strong(none, made)) return made;
    close(made);
    return none;
}

bool send_once(int socket, const char* line, size_t size) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, LOG_SOCKET, sizeof LOG_SOCKET);
    ssize_t sent = 0;
    do {
        sent = sendto(socket, line, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool send_line(const char* line, size_t size) {
    // After one line that waited in vain, the next ones do not wait.
    static std::atomic<bool> s_stalled{false};
    const int socket = log_socket();
    if (socket < 0) return false;
    const int tries = s_stalled ? 1 : TRIES;
    for (int i = 0; i < tries; ++i) {
        if (i > 0) nanosleep(&PAUSE, nullptr);
        if (send_once(socket, line, size)) {
            s_stalled = false;
            return true;
        }
        if (errno != EAGAIN) return false;
    }
    s_stalled = true;
    return false;
}

void write_all(int descriptor, const char* text, size_t size) {
    while (size > 0) {
        const ssize_t written = write(descriptor, text, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text += written;
        size -= static_cast<size_t>(written);
    }
}

}  // namespace

}  // namespace linux_platform

extern "C" int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format,
                            ...) {
    using namespace linux_platform;
    // Called from signal handlers, which must not change what the program sees.
    const int error_before = errno;
    char line[LINE_SIZE];
    const auto tag_at = static_cast<size_t>(
        snprintf(line, sizeof line, "<%d>", LOG_DAEMON | syslog_priority(priority)));
    const int tag_size = snprintf(line + tag_at, MAX_TAG_SIZE, "%s: ", tag ? tag : "-");
    const size_t begin = tag_at + std::min(static_cast<size_t>(tag_size), MAX_TAG_SIZE - 1);

    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line + begin, sizeof line - begin, format, arguments);
    va_end(arguments);
    size_t size = begin;
    if (length >= 0) {
        size = std::min(begin + static_cast<size_t>(length), sizeof line - 1);
        if (!send_line(line, size)) {
            // In place of the terminating zero, which nothing needs any more.
            if (line[size - 1] != '\n') line[size++] = '\n';
            write_all(STDERR_FILENO, line + tag_at, size - tag_at);
        }
    }
    errno = error_before;
    return length < 0 ? -1 : static_cast<int>(size - tag_at);
}
