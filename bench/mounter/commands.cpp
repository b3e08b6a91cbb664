#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_bench {

namespace {

std::vector<char*> arguments(const Command& command) {
    std::vector<char*> argv;
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

[[noreturn]] void give_up(const Command& command, int status) {
    std::string text = "status " + std::to_string(status) + " from:";
    for (const std::string& word : command) {
        text += ' ' + word;
    }
    throw std::runtime_error(text);
}

long high_water_mark(pid_t pid) {
    FILE* status = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "re");
    char line[256];
    long kilobytes = 0;
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        if (strncmp(line, "VmHWM:", 6) == 0) {
            kilobytes = strtol(line + 6, nullptr, 10);
        }
    }
    if (status != nullptr) {
        fclose(status);
    }
    return kilobytes;
}

}  // namespace

void run(const Command& command) {
    static posix_spawn_file_actions_t* quiet = [] {
        static posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        return &actions;
    }();
    pid_t pid = 0;
    int status = -1;
    if (posix_spawnp(&pid, command[0].c_str(), quiet, nullptr, arguments(command).data(),
                     environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        give_up(command, status);
    }
}

double timed(const std::function<void()>& work) {
    timespec begin;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    work();
    clock_gettime(CLOCK_MONOTONIC, &end);
    return static_cast<double>(end.tv_sec - begin.tv_sec) * 1e6 +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e3;
}

long peak_memory(const Command& command) {
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        execvp(command[0].c_str(), arguments(command).data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
    long peak = 0;
    for (;;) {
        ptrace(PTRACE_CONT, pid, nullptr, nullptr);
        if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) {
            break;
        }
        if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            peak = high_water_mark(pid);
        }
    }
    if (status != 0) {
        give_up(command, status);
    }
    return peak;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace mounter_bench
