#pragma once

namespace linux_platform {

/**
 * Notifies the service manager that the program has started, see sd_notify(3),
 * and from then on, twice in each watchdog time, that its main loop runs, see
 * sd_watchdog_enabled(3). Either only if the manager asks for it, by the
 * environment variables NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID. Later
 * calls have no effect. From any thread.
 *
 * Waits for a manager that hangs for one second at most. Failures are logged.
 */
void notify_started();

}  // namespace linux_platform
