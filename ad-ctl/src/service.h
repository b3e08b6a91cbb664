/**
 * The daemon as a process and as a service of systemd(1).
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ad_ctl {

/** What could not be seen, such as "which library is loaded: /proc/1/maps: Permission denied". */
using Unseen = std::vector<std::string>;

enum class ServiceState {
    stopped,
    failed,    // and not to be restarted
    starting,  // or waiting to be restarted
    running,
};

/** Which copy of the agent library a process has loaded. */
enum class LoadedCopy { unknown, none, updatable, firmware };

struct Service {
    ServiceState state = ServiceState::stopped;
    /** The daemon's process, 0 if there is none. */
    pid_t pid = 0;
    uid_t user = 0;
    /** When it started, in seconds since 1970. */
    std::int64_t started = 0;
    LoadedCopy loaded = LoadedCopy::unknown;
    /** Whether the loaded copy's file has been replaced or removed since. */
    bool is_replaced = false;
};

/**
 * Finds the daemon in its control group or, where systemd does not run it, among all processes.
 * Asks the service manager only if there is no process. Starts none.
 */
Service find_service(const std::string& updatable_library, const std::string& firmware_library,
                     Unseen& unseen);

}  // namespace ad_ctl
