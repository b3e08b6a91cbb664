// Runs one operation of the agent as a host does, for the tests in Python: "agent-driver DIRECTORY"
// and "fetch URL-PATH", "update VERSION", "install VERSION" or "load COPY HAD-UPDATABLE". Exits
// with 0 or 1, the operation's result, and prints what it left behind in its host. In the
// environment: NOW, the seconds since 1970; FIRMWARE, the platform's answer; CHILDREN, "ignored" to
// ignore SIGCHLD, "unrelated" for a child of the host's own that ends soon.
#include "agent.h"
#include "files.h"
#include "system_information.h"

#include <csignal>
#include <cstring>
#include <ctime>

#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t stop_signals = 0;

void on_signal(int number) { stop_signals = stop_signals + (number == SIGTERM ? 1 : 0); }

auto count_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

bool run(const std::string& root, const std::string& operation, char** arguments) {
    const ad_agent::Agent agent({root + "/agent.conf", root + "/data", root + "/store/image",
                                 root + "/store/floor", root + "/updatable.so",
                                 root + "/builtin.so", root + "/zel.xml", root + "/keys",
                                 root + "/product"});
    if (operation == "load") {
        agent.report_loaded_library(root + "/" + arguments[0], strcmp(arguments[1], "True") == 0);
        return true;
    }
    if (operation == "install") {
        return agent.set_version(arguments[0]) && agent.version() == arguments[0];
    }
    const bool is_fetch = operation == "fetch";
    return is_fetch ? agent.fetch_configuration(arguments[0]) : agent.update(arguments[0]);
}

}  // namespace

#ifndef WITHOUT_PLATFORM
int system_info_get_value_string(int key, char** value) {
    static char garbage[] = "9";
    const char* const firmware = getenv("FIRMWARE");
    *value = firmware ? strdup(firmware) : garbage;
    return firmware && key == SYSTEM_INFO_KEY_FIRMWARE_VERSION ? 0 : -1;
}
#endif

// Takes the place of the C library's.
time_t time(time_t* result) {
    const char* const now = getenv("NOW");
    timespec clock = {};
    clock_gettime(CLOCK_REALTIME, &clock);
    const time_t seconds = now ? strtol(now, nullptr, 10) : clock.tv_sec;
    if (result) {
        *result = seconds;
    }
    return seconds;
}

int main(int, char** arguments) {
    const char* const mode = getenv("CHILDREN");
    const std::string children_are = mode ? mode : "";
    signal(SIGTERM, on_signal);
    signal(SIGCHLD, children_are == "ignored" ? SIG_IGN : on_signal);
    if (children_are == "unrelated" && fork() == 0) {
        usleep(100000);
        _exit(0);
    }
    printf("Left behind: ");  // buffered, and printed twice by a child that runs exit handlers
    const auto descriptors = count_descriptors();
    const bool result = run(arguments[1], arguments[2], arguments + 3);

    int children = 0;
    while (wait(nullptr) > 0) {
        ++children;
    }
    const std::string maps = test_support::read_file("/proc/self/maps");
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    printf("%td descriptors, %d children, %d libcurl, %d blocked; stopped %d times\n",
           count_descriptors() - descriptors, children, maps.find("libcurl") != std::string::npos,
           sigismember(&blocked, SIGTERM), static_cast<int>(stop_signals));
    return result ? 0 : 1;
}
