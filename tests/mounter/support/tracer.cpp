#include "tracer.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {

namespace {

// Once a thread is inside a call that is made to fail, the result is set at its end.
using PendingErrors = std::map<pid_t, int>;

#ifdef __x86_64__
void skip_call(pid_t pid) {
    user_regs_struct registers;
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    registers.orig_rax = static_cast<unsigned long long>(-1);
    ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}

void set_first_argument(pid_t pid, long value) {
    user_regs_struct registers;
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    registers.rdi = static_cast<unsigned long long>(value);
    ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}

void set_result(pid_t pid, long value) {
    user_regs_struct registers;
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    registers.rax = static_cast<unsigned long long>(value);
    ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}
constexpr bool known_machine = true;
#else
void skip_call(pid_t) {}
void set_first_argument(pid_t, long) {}
void set_result(pid_t, long) {}
constexpr bool known_machine = false;
#endif

class Tracing {
public:
    Tracing(pid_t child, const Decide& decide) : child_(child), decide_(decide) {}

    int run() {
        int status = 0;
        waitpid(child_, &status, __WALL);
        ptrace(
            PTRACE_SETOPTIONS, child_, nullptr,
            PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
        resume(child_, 0);
        for (;;) {
            const pid_t pid = waitpid(-1, &status, __WALL);
            if (pid < 0) {
                return exit_status_;
            }
            if (!WIFSTOPPED(status)) {
                if (pid == child_) {
                    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
                }
                continue;
            }
            handle_stop(pid, status);
        }
    }

private:
    static void resume(pid_t pid, int signal) {
        ptrace(PTRACE_SYSCALL, pid, nullptr, static_cast<long>(signal));
    }

    void handle_stop(pid_t pid, int status) {
        const int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80)) {
            handle_call(pid);
        }
        // Stops that are ptrace's own are not for the process.
        const bool own = signal == SIGTRAP || signal == (SIGTRAP | 0x80) || signal == SIGSTOP;
        resume(pid, own ? 0 : signal);
    }

    void handle_call(pid_t pid) {
        __ptrace_syscall_info info = {};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0) {
            return;
        }
        const auto pending = pending_.find(pid);
        if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
            if (pending != pending_.end()) {
                set_result(pid, -pending->second);
                pending_.erase(pending);
            }
            return;
        }
        SystemCall call = {pid, static_cast<long>(info.entry.nr), {}};
        std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
        // The first thing that the tool itself does, whatever its loader did.
        started_ = started_ || call.number == SYS_umask;
        if (!started_) {
            return;
        }
        const Decision decision = decide_(call);
        if (decision.what == Decision::kill) {
            kill(child_, SIGKILL);
        } else if (decision.what == Decision::fail) {
            skip_call(pid);
            pending_[pid] = decision.value;
        } else if (decision.what == Decision::replace_first_argument) {
            set_first_argument(pid, decision.value);
        }
    }

    pid_t child_;
    const Decide& decide_;
    PendingErrors pending_;
    bool started_ = false;
    int exit_status_ = -1;
};

}  // namespace

std::string missing_for_tracing() {
    return known_machine ? "" : "system calls are only intercepted on x86-64";
}

Result trace(const Device& device, const Words& words, const Decide& decide, RunOptions options) {
    const std::string log = device.at("/stage/trace.err");
    const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(err, STDERR_FILENO);
        options.before_exec = [before = options.before_exec] {
            if (before) {
                before();
            }
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
        };
        device.execute(words, options);
    }
    close(err);
    Result result = {};
    result.status = Tracing(pid, decide).run();
    result.err = device.read("/stage/trace.err");
    return result;
}

const char* fault_name(const SystemCall& call) {
    static const std::map<long, const char*> names = {
        {SYS_write, "write"},
        {SYS_fsync, "fsync"},
        {SYS_syncfs, "syncfs"},
        {SYS_renameat, "renameat"},
        {SYS_renameat2, "renameat2"},
        {SYS_openat, "openat"},
        {SYS_openat2, "openat2"},
        {SYS_mkdirat, "mkdirat"},
        {SYS_mount, "mount"},
        {SYS_umount2, "umount2"},
        {SYS_fsopen, "fsopen"},
        {SYS_fsconfig, "fsconfig"},
        {SYS_fsmount, "fsmount"},
        {SYS_move_mount, "move_mount"},
        {SYS_unlinkat, "unlinkat"},
        {SYS_linkat, "linkat"},
        {SYS_symlinkat, "symlinkat"},
        {SYS_fchown, "fchown"},
        {SYS_fchmod, "fchmod"},
        {SYS_ioctl, "ioctl"},
        {SYS_read, "read"},
        {SYS_getdents64, "getdents64"},
        {SYS_fchdir, "fchdir"},
        {SYS_flock, "flock"},
        {SYS_fstatfs, "fstatfs"},
        {SYS_statx, "statx"},
        {SYS_newfstatat, "newfstatat"},
        {SYS_sendfile, "sendfile"},
    };
    // The failure's own line is not part of the work.
    if (call.number == SYS_write && call.arguments[0] <= STDERR_FILENO) {
        return nullptr;
    }
    const auto name = names.find(call.number);
    return name != names.end() ? name->second : nullptr;
}

bool is_mutating(const SystemCall& call) {
    switch (call.number) {
        case SYS_write:
            return call.arguments[0] > STDERR_FILENO;
        case SYS_openat:
            return (call.arguments[2] & O_CREAT) != 0;
        case SYS_ioctl:
            return call.arguments[1] == LOOP_CONFIGURE || call.arguments[1] == LOOP_CTL_GET_FREE;
        case SYS_fsync:
        case SYS_syncfs:
        case SYS_sendfile:
        case SYS_sync_file_range:
        case SYS_fallocate:
        case SYS_renameat:
        case SYS_renameat2:
        case SYS_mkdirat:
        case SYS_mount:
        case SYS_umount2:
        case SYS_fsconfig:
        case SYS_fsmount:
        case SYS_move_mount:
        case SYS_unlinkat:
        case SYS_linkat:
        case SYS_symlinkat:
        case SYS_fchown:
        case SYS_fchmod:
        case SYS_exit_group:
            return true;
        default:
            return false;
    }
}

}  // namespace mounter_test
