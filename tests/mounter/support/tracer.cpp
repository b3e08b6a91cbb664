#include "tracer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>

#include <fcntl.h>
#include <linux/loop.h>
#include <seccomp.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {

namespace {

// At its entry: the kernel leaves the result of a call that has no number alone.
void fail_call([[maybe_unused]] pid_t pid, [[maybe_unused]] int error) {
#ifdef __x86_64__
    ptrace(PTRACE_POKEUSER, pid, offsetof(user, regs.orig_rax), -1L);
    ptrace(PTRACE_POKEUSER, pid, offsetof(user, regs.rax), static_cast<long>(-error));
#endif
}

void handle_call(pid_t pid, const Decide& decide, bool& started) {
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0 ||
        info.op != PTRACE_SYSCALL_INFO_ENTRY) {
        return;
    }
    SystemCall call = {pid, static_cast<long>(info.entry.nr), {}};
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
    // The first thing that the tool itself does, whatever its loader did.
    started = started || call.number == SYS_umask;
    const int error = started ? decide(call) : 0;
    if (error != 0) {
        fail_call(pid, error);
    }
}

}  // namespace

Result trace(const Device& device, const Words& words, const Decide& decide,
             const BeforeExec& before_exec) {
    const pid_t child = device.start(words, [&before_exec] {
        if (before_exec) {
            before_exec();
        }
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
    });
    int status = 0;
    waitpid(child, &status, __WALL);
    ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
    bool started = false;
    int end = 0;
    for (pid_t pid = child; pid > 0; pid = waitpid(-1, &status, __WALL)) {
        if (!WIFSTOPPED(status)) {
            end = pid == child ? status : end;
            continue;
        }
        const int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80)) {
            handle_call(pid, decide, started);
        }
        // Stops that are ptrace's own are not for the process.
        const bool own = signal == SIGTRAP || signal == (SIGTRAP | 0x80) || signal == SIGSTOP;
        ptrace(PTRACE_SYSCALL, pid, nullptr, own ? 0L : static_cast<long>(signal));
    }
    return device.result(end);
}

std::string name_of(const SystemCall& call) {
    const std::unique_ptr<char, void (*)(void*)> name(
        seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, static_cast<int>(call.number)), free);
    return name != nullptr ? name.get() : std::to_string(call.number);
}

bool is_faulty(const SystemCall& call) {
    static const std::set<long> numbers = {
        SYS_write,  SYS_fsync,      SYS_syncfs,   SYS_renameat,       SYS_renameat2,
        SYS_openat, SYS_openat2,    SYS_mkdirat,  SYS_mount,          SYS_umount2,
        SYS_fsopen, SYS_fsconfig,   SYS_fsmount,  SYS_move_mount,     SYS_unlinkat,
        SYS_linkat, SYS_symlinkat,  SYS_fchown,   SYS_fchmod,         SYS_ioctl,
        SYS_read,   SYS_getdents64, SYS_fchdir,   SYS_flock,          SYS_fstatfs,
        SYS_statx,  SYS_newfstatat, SYS_sendfile, SYS_sync_file_range};
    // The failure's own line is not part of the work.
    const bool message = call.number == SYS_write && call.arguments[0] <= STDERR_FILENO;
    return !message && numbers.count(call.number) != 0;
}

bool is_mutating(const SystemCall& call) {
    static const std::set<long> looking = {SYS_openat2,    SYS_fsopen, SYS_read,
                                           SYS_getdents64, SYS_fchdir, SYS_flock,
                                           SYS_fstatfs,    SYS_statx,  SYS_newfstatat};
    switch (call.number) {
        case SYS_openat:
            return (call.arguments[2] & O_CREAT) != 0;
        case SYS_ioctl:
            return call.arguments[1] == LOOP_CONFIGURE || call.arguments[1] == LOOP_CTL_GET_FREE;
        case SYS_exit_group:
            return true;
        default:
            return is_faulty(call) && looking.count(call.number) == 0;
    }
}

}  // namespace mounter_test
