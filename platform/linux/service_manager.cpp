/**
 * The protocol of sd_notify(3): datagrams to the socket that the environment
 * names. One datagram is not worth a dependency on libsystemd.
 */
#include "service_manager.h"

#include "base/errno_text.h"
#include "base/unique_fd.h"
#include "log.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <glib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace linux_platform {

namespace {

/** How long a notification waits for a service manager that hangs. */
constexpr timeval send_limit = {1, 0};

/** Sends a notification. Returns 0 or an errno value. */
int send_notification(const char* path, const char* text) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (*path != '/' && *path != '@') {
        return EAFNOSUPPORT;
    }
    if (length >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    memcpy(address.sun_path, path, length);
    if (*path == '@') {
        address.sun_path[0] = '\0';  // An abstract socket, see unix(7).
    }
    const base::UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sender) {
        return errno;
    }
    setsockopt(sender.get(), SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof send_limit);
    ssize_t sent = 0;
    do {
        sent = sendto(sender.get(), text, strlen(text), MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&address),
                      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errno : 0;
}

/** Sends a notification to the service manager, if there is one that asks for it. */
void notify(const char* text) {
    const char* path = getenv("NOTIFY_SOCKET");
    if (path == nullptr) {
        return;
    }
    if (const int error = send_notification(path, text)) {
        LOG_ERROR("failed to send %s to the service manager at %s: %s", text, path,
                  base::errno_text(error));
    }
}

/** The watchdog time in microseconds; 0 without one, or if it is another process's. */
uint64_t watchdog_us() {
    const char* time = getenv("WATCHDOG_USEC");
    const char* process = getenv("WATCHDOG_PID");
    if (time == nullptr || (process != nullptr && strtoll(process, nullptr, 10) != getpid())) {
        return 0;
    }
    return strtoull(time, nullptr, 10);
}

/** On the main loop's thread: nothing else shows that the loop runs. */
int on_watchdog(void* /*user_data*/) {
    notify("WATCHDOG=1");
    return G_SOURCE_CONTINUE;
}

void start_watchdog() {
    constexpr uint64_t us_per_ms = 1000;
    const uint64_t interval_ms = watchdog_us() / us_per_ms / 2;
    if (interval_ms == 0) {
        return;
    }
    g_timeout_add(static_cast<unsigned>(std::min<uint64_t>(interval_ms, G_MAXUINT)), on_watchdog,
                  nullptr);
}

}  // namespace

void notify_started() {
    static std::once_flag once;
    std::call_once(once, [] {
        notify("READY=1");
        start_watchdog();
    });
}

}  // namespace linux_platform
