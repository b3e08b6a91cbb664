// What the process makes of itself before it works.

#include "privileges.h"
#include "process_start.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {
namespace {

TEST(Filter, KillsForbiddenCallsOfEveryCommand) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    constexpr long x32_call = 0x40000000 | SYS_getpid;
    constexpr long forbidden[] = {SYS_execve,
                                  SYS_execveat,
                                  SYS_fork,
                                  SYS_vfork,
                                  SYS_socket,
                                  SYS_socketpair,
                                  SYS_io_uring_setup,
                                  SYS_ptrace,
                                  SYS_process_vm_readv,
                                  SYS_process_vm_writev,
                                  SYS_pidfd_getfd,
                                  SYS_bpf,
                                  SYS_init_module,
                                  SYS_finit_module,
                                  SYS_kexec_load,
                                  SYS_perf_event_open,
                                  SYS_keyctl,
                                  SYS_unshare,
                                  SYS_setns,
                                  SYS_chroot,
                                  SYS_pivot_root,
                                  x32_call};
    for (const ad_mounter::CommandSpec& command : ad_mounter::command_specs) {
        for (const long call : forbidden) {
            const pid_t pid = fork();
            if (pid == 0) {
                const bool dropped = ad_mounter::drop_privileges(command).ok();
                // Without the filter the arguments make the call fail.
                syscall(call, -1L, -1L, -1L, -1L, -1L, -1L);
                _exit(dropped ? 0 : 1);
            }
            int status = 0;
            ASSERT_EQ(waitpid(pid, &status, 0), pid);
            EXPECT_EQ(WTERMSIG(status), SIGSYS) << command.option << ' ' << call;
        }
    }
}

TEST(Environment, IsCleared) {
    setenv("LD_PRELOAD", "/stage/evil.so", 1);
    const auto prepare_and_exit = [] {
        const bool prepared = ad_mounter::prepare_process().ok();
        _exit(prepared && environ == nullptr ? 0 : 1);
    };
    EXPECT_EXIT(prepare_and_exit(), testing::ExitedWithCode(0), "");
    unsetenv("LD_PRELOAD");
}

}  // namespace
}  // namespace mounter_test
