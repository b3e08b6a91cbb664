// The guard of the daemon's updatable agent library, run by the service manager around the
// daemon. Whatever fails here, the daemon is started: the commands always exit with 0.
#include "device.h"
#include "guard.h"
#include "guard_log.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

constexpr char usage[] =
    "Usage: adagentd-guard before|stop|after|confirm\n"
    "\n"
    "Run by the service manager around adagentd:\n"
    "  before   as ExecStartPre=: count the start, or give the updatable agent library up\n"
    "  stop     as the first ExecStop=: what follows was asked for\n"
    "  after    as ExecStopPost=: record how the daemon ended\n"
    "  confirm  five minutes after the start: the updatable agent library is good\n";

std::string environment(const char* name) {
    const char* const value = getenv(name);
    return value ? value : "";
}

/** Whether the daemon still runs. If not, it ended by itself before it could be stopped. */
bool is_running() {
    const auto pid = static_cast<pid_t>(std::strtol(environment("MAINPID").c_str(), nullptr, 10));
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

void run(const char* command) {
    using namespace ad_guard;
    const bool has_copy = access(updatable_library, F_OK) == 0;
    auto directory = has_copy ? ad_agent::DataDirectory::create(data_directory)
                              : ad_agent::DataDirectory::open(data_directory);
    if (!directory) {
        if (has_copy) {
            log_line(directory.error().message + "; not watching " + updatable_library);
        }
        return;
    }
    Guard guard(std::move(*directory));
    if (strcmp(command, "before") == 0) {
        guard.before();
    } else if (strcmp(command, "after") == 0) {
        guard.after(read_ending(environment("SERVICE_RESULT"), environment("EXIT_CODE"),
                                environment("EXIT_STATUS")));
    } else if (strcmp(command, "confirm") == 0) {
        guard.confirm();
    } else if (is_running()) {
        guard.stop();
    }
}

bool is_command(const char* word) {
    return strcmp(word, "before") == 0 || strcmp(word, "stop") == 0 || strcmp(word, "after") == 0 ||
           strcmp(word, "confirm") == 0;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int misused = 64;
    if (argc != 2 || !is_command(argv[1])) {
        base::write_full(STDERR_FILENO, usage, sizeof(usage) - 1);
        return misused;
    }
    try {
        run(argv[1]);
    } catch (const std::exception& exception) {
        ad_guard::log_line(std::string(argv[1]) + ": " + exception.what());
    }
    return 0;
}
