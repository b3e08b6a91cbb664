#include "service.h"

#include "base/errno_text.h"
#include "base/glib_owned.h"
#include "service_manager.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace ad_ctl {
namespace {

constexpr char daemon_name[] = "adagentd";
constexpr const char* control_groups[] = {
    "/sys/fs/cgroup/system.slice/adagentd.service/cgroup.procs",
    "/sys/fs/cgroup/unified/system.slice/adagentd.service/cgroup.procs",
    "/sys/fs/cgroup/systemd/system.slice/adagentd.service/cgroup.procs",
};
/** A symbolic link while the service is neither inactive nor failed. Its target is no file. */
constexpr char invocation[] = "/run/systemd/units/invocation:adagentd.service";
/** Exists where systemd is the service manager, see sd_booted(3). */
constexpr char service_manager[] = "/run/systemd/system";
constexpr char unit_path[] = "/org/freedesktop/systemd1/unit/adagentd_2eservice";

/** Reads a file of proc(5) or of a control group. Returns none with errno set if it cannot. */
std::optional<std::string> read_file(const std::string& path) {
    gchar* text = nullptr;
    gsize length = 0;
    errno = 0;
    if (g_file_get_contents(path.c_str(), &text, &length, nullptr) == FALSE) {
        return std::nullopt;
    }
    const base::Owned<char> owned(text);
    return std::string(text, length);
}

std::string process_file(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

bool is_daemon(pid_t pid) {
    return read_file(process_file(pid, "comm")) == std::string(daemon_name) + "\n";
}

pid_t find_in_control_group() {
    for (const char* path : control_groups) {
        std::istringstream processes(read_file(path).value_or(""));
        for (pid_t pid = 0; processes >> pid;) {
            if (is_daemon(pid)) {
                return pid;
            }
        }
    }
    return 0;
}

pid_t find_among_all() {
    const base::Owned<GDir> directory(g_dir_open("/proc", 0, nullptr));
    while (const char* name = directory ? g_dir_read_name(directory.get()) : nullptr) {
        constexpr int decimal = 10;
        const auto pid = static_cast<pid_t>(std::strtol(name, nullptr, decimal));  // 0 for a word
        if (pid > 0 && is_daemon(pid)) {
            return pid;
        }
    }
    return 0;
}

/** Returns when a process started, see "starttime" in proc(5), or 0. */
std::int64_t start_time(pid_t pid) {
    constexpr int fields_before = 19;
    const std::string text = read_file(process_file(pid, "stat")).value_or("");
    // The name, in parentheses, may hold anything.
    std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string skipped;
    for (int i = 0; i < fields_before; ++i) {
        fields >> skipped;
    }
    std::int64_t ticks = 0;
    timespec since_boot = {};
    if (!(fields >> ticks) || clock_gettime(CLOCK_BOOTTIME, &since_boot) != 0) {
        return 0;
    }
    return std::time(nullptr) - since_boot.tv_sec + ticks / sysconf(_SC_CLK_TCK);
}

/** Returns the state of a service without a process. */
ServiceState idle_state(Unseen& unseen) {
    struct stat status = {};
    if (lstat(invocation, &status) == 0) {
        return ServiceState::starting;
    }
    if (access(service_manager, F_OK) != 0) {
        return ServiceState::stopped;
    }
    // It waits for its restart, too, without an invocation.
    const auto state = read_active_state(unit_path);
    if (!state) {
        unseen.push_back("whether adagentd waits for its restart: " + state.error());
        return ServiceState::stopped;
    }
    if (*state == "failed") {
        return ServiceState::failed;
    }
    return *state == "inactive" ? ServiceState::stopped : ServiceState::starting;
}

/** Finds the library among what the process has mapped. */
void find_loaded(Service& service, const std::string& updatable, const std::string& firmware,
                 Unseen& unseen) {
    const std::string path = process_file(service.pid, "maps");
    const auto maps = read_file(path);
    if (!maps) {
        unseen.push_back("which library adagentd has loaded: " + path + ": " +
                         base::errno_text(errno));
        return;
    }
    service.loaded = LoadedCopy::none;
    std::istringstream lines(*maps);
    for (std::string line; std::getline(lines, line);) {
        const std::string file = line.substr(std::min(line.find('/'), line.size()));
        for (const auto& [library, copy] : {std::pair(&updatable, LoadedCopy::updatable),
                                            std::pair(&firmware, LoadedCopy::firmware)}) {
            const bool is_replaced = file == *library + " (deleted)";
            if (file == *library || is_replaced) {
                service.loaded = copy;
                service.is_replaced = is_replaced;
            }
        }
    }
}

}  // namespace

Service find_service(const std::string& updatable_library, const std::string& firmware_library,
                     Unseen& unseen) {
    Service service;
    service.pid = find_in_control_group();
    if (service.pid == 0) {
        service.pid = find_among_all();
    }
    if (service.pid == 0) {
        service.state = idle_state(unseen);
        return service;
    }
    service.state = ServiceState::running;
    service.started = start_time(service.pid);
    struct stat status = {};
    if (stat(process_file(service.pid, "").c_str(), &status) == 0) {
        service.user = status.st_uid;
    }
    find_loaded(service, updatable_library, firmware_library, unseen);
    return service;
}

}  // namespace ad_ctl
