// Run during the build: prints the tool's system call filter, as libseccomp
// makes it, as the entries of a BPF program. Making it anew in each run would
// cost a tenth of a mount.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <linux/filter.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// A call that is not known for this machine is not there to be forbidden.
constexpr int forbidden_calls[] = {
    // other programs
    SCMP_SYS(execve), SCMP_SYS(execveat), SCMP_SYS(fork), SCMP_SYS(vfork),
    // sockets, also by way of a ring
    SCMP_SYS(socket), SCMP_SYS(socketpair), SCMP_SYS(io_uring_setup),
    // other processes
    SCMP_SYS(ptrace), SCMP_SYS(process_vm_readv), SCMP_SYS(process_vm_writev),
    SCMP_SYS(pidfd_getfd),
    // the kernel, and other views of the system
    SCMP_SYS(bpf), SCMP_SYS(init_module), SCMP_SYS(finit_module), SCMP_SYS(kexec_load),
    SCMP_SYS(perf_event_open), SCMP_SYS(keyctl), SCMP_SYS(unshare), SCMP_SYS(setns),
    SCMP_SYS(chroot), SCMP_SYS(pivot_root)};

// 0 or a negative errno.
int export_filter(int fd) {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) {
        return -ENOMEM;
    }
    // As a binary tree, which takes fewer steps for the calls that are allowed.
    int error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_OPTIMIZE, 2);
    for (const int call : forbidden_calls) {
        if (error == 0 && call >= 0) {
            error = seccomp_rule_add(filter, SCMP_ACT_KILL_PROCESS, call, 0);
        }
    }
    if (error == 0) {
        error = seccomp_export_bpf(filter, fd);
    }
    seccomp_release(filter);
    return error;
}

}  // namespace

int main() {
    const int fd = memfd_create("filter", MFD_CLOEXEC);
    const int error = fd < 0 ? -errno : export_filter(fd);
    if (error != 0) {
        fprintf(stderr, "make_filter: %s\n", strerror(-error));
        return 1;
    }
    const off_t size = lseek(fd, 0, SEEK_END);
    std::vector<sock_filter> program(static_cast<size_t>(size) / sizeof(sock_filter));
    if (pread(fd, program.data(), static_cast<size_t>(size), 0) != size) {
        perror("make_filter");
        return 1;
    }
    for (const sock_filter& step : program) {
        printf("{%#x, %u, %u, %#x},\n", step.code, step.jt, step.jf, step.k);
    }
    return ferror(stdout) != 0 || fflush(stdout) != 0 ? 1 : 0;
}
