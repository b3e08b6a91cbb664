// The filters are compiled to BPF programs by the C++ compiler, from one table.
#include "syscall_filter.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/loop.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

#if defined(__x86_64__) && defined(__LP64__)
constexpr uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__) && defined(__LP64__)
constexpr uint32_t architecture = AUDIT_ARCH_AARCH64;
#elif defined(__ARM_EABI__)
constexpr uint32_t architecture = AUDIT_ARCH_ARM;
#else
#error "The system call filter lacks this architecture."
#endif
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "Arguments are loaded by low word.");

/** What the filter does with a call, beyond allowing or killing: it looks at one argument. */
enum class Rule : unsigned char {
    kill,
    allow,
    missing,        ///< fails with ENOSYS, as on a kernel that lacks the call
    loop_query,     ///< ioctl(2) that queries a loop device
    loop_setup,     ///< ioctl(2) that queries or sets up a loop device
    data_memory,    ///< memory that is not executable
    image_mount,    ///< mount(2) with the flags of an image
    thread,         ///< clone(2) of a thread, as the C library creates it
    abort_process,  ///< tgkill(2) by abort(3)
};

using VerbSet = unsigned;

constexpr VerbSet set_of(Verb verb) { return 1U << static_cast<unsigned>(verb); }

constexpr VerbSet mounting = set_of(Verb::mount);
constexpr VerbSet unmounting = set_of(Verb::umount);
constexpr VerbSet replacing = set_of(Verb::replace_image);
constexpr VerbSet copying_tree = set_of(Verb::copy_tree);
constexpr VerbSet copying = set_of(Verb::copy_library) | copying_tree;
constexpr VerbSet preparing_mounts = mounting | replacing;
constexpr VerbSet writing =
    set_of(Verb::create) | set_of(Verb::remove) | preparing_mounts | copying;
constexpr VerbSet every_verb = writing | unmounting;

struct AllowedCall {
    int number;
    VerbSet verbs;
    Rule rule = Rule::allow;
};

// Calls of the C library are included, and what replaces calls that an older kernel lacks. A
// call that the kernel lacks fails with ENOSYS also when it is allowed here.
constexpr AllowedCall allowed_calls[] = {
    // Files.
    {SYS_openat, every_verb},
    {SYS_openat2, every_verb},
    {SYS_close, every_verb},
    {SYS_read, every_verb},
    {SYS_pread64, every_verb},
    {SYS_write, every_verb},
    {SYS_writev, every_verb},
    {SYS_pwrite64, replacing | copying},
    {SYS_getdents64, every_verb},
    {SYS_readlinkat, every_verb},
    {SYS_statx, every_verb},
    {SYS_flock, every_verb},
    {SYS_fsync, every_verb},
    {SYS_fdatasync, every_verb},
    {SYS_syncfs, every_verb},
    {SYS_mkdirat, every_verb},
    {SYS_fchdir, preparing_mounts | unmounting},
    {SYS_fchmod, writing},
    {SYS_unlinkat, writing},
    {SYS_renameat, writing},
    {SYS_renameat2, writing},
    {SYS_linkat, replacing},
    {SYS_symlinkat, preparing_mounts | copying_tree},
    {SYS_ioctl, preparing_mounts, Rule::loop_setup},
    {SYS_ioctl, unmounting | copying, Rule::loop_query},
    // Mounts.
    {SYS_fsopen, preparing_mounts},
    {SYS_fsconfig, preparing_mounts},
    {SYS_fsmount, preparing_mounts},
    {SYS_move_mount, mounting},
    {SYS_mount, preparing_mounts, Rule::image_mount},
    {SYS_umount2, preparing_mounts | unmounting},
    // Memory, time, signals and the end.
    {SYS_brk, every_verb},
    {SYS_munmap, every_verb},
    {SYS_mprotect, every_verb, Rule::data_memory},
    {SYS_madvise, every_verb},
    {SYS_getrandom, every_verb},
    {SYS_nanosleep, every_verb},
    {SYS_clock_nanosleep, every_verb},
    {SYS_clock_gettime, every_verb},
    {SYS_restart_syscall, every_verb},
    {SYS_setitimer, every_verb},
    {SYS_rt_sigaction, every_verb},
    {SYS_rt_sigprocmask, every_verb},
    {SYS_rt_sigreturn, every_verb},
    {SYS_getpid, every_verb},
    {SYS_gettid, every_verb},
    {SYS_tgkill, every_verb, Rule::abort_process},
    {SYS_exit, every_verb},
    {SYS_exit_group, every_verb},
    // Threads. clone3(2) takes its flags in memory, where no filter sees them.
    {SYS_futex, every_verb},
    {SYS_clone, writing, Rule::thread},
    {SYS_clone3, writing, Rule::missing},
    {SYS_set_robust_list, writing},
    {SYS_rseq, writing},
#ifdef __LP64__
    {SYS_lseek, every_verb},
    {SYS_fcntl, every_verb},
    {SYS_fstat, every_verb},
    {SYS_newfstatat, every_verb},
    {SYS_statfs, every_verb},
    {SYS_fstatfs, every_verb},
    {SYS_fchown, writing},
    {SYS_sendfile, replacing | copying},
    {SYS_sync_file_range, replacing | copying},
    {SYS_mmap, every_verb, Rule::data_memory},
#else
    {SYS__llseek, every_verb},
    {SYS_fcntl64, every_verb},
    {SYS_fstat64, every_verb},
    {SYS_fstatat64, every_verb},
    {SYS_statfs64, every_verb},
    {SYS_fstatfs64, every_verb},
    {SYS_fchown32, writing},
    {SYS_sendfile, replacing | copying},
    {SYS_sendfile64, replacing | copying},
    {SYS_arm_sync_file_range, replacing | copying},
    {SYS_sigreturn, every_verb},
    {SYS_mmap2, every_verb, Rule::data_memory},
    {SYS_futex_time64, every_verb},
    {SYS_clock_gettime64, every_verb},
    {SYS_clock_nanosleep_time64, every_verb},
#endif
#ifdef SYS_readlink
    {SYS_readlink, every_verb},
#endif
#ifdef __SANITIZE_ADDRESS__
    {SYS_sigaltstack, every_verb},
    {SYS_sched_yield, every_verb},
    {SYS_sched_getaffinity, every_verb},
    {SYS_prlimit64, every_verb},
#endif
};

/** A BPF program; as a constant it can be of any length that fits. */
struct Program {
    static constexpr size_t capacity = 512;
    sock_filter steps[capacity] = {};
    size_t length = 0;

    constexpr void add(unsigned code, uint32_t value, size_t if_true = 0, size_t if_false = 0) {
        steps[length++] = {static_cast<uint16_t>(code), static_cast<uint8_t>(if_true),
                           static_cast<uint8_t>(if_false), value};
    }
    constexpr void load(size_t offset) {
        add(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
    }
    constexpr void finish(uint32_t action) { add(BPF_RET | BPF_K, action); }

    constexpr void load_argument(size_t number) {
        load(offsetof(seccomp_data, args) + number * sizeof(uint64_t));
    }

    /** Allows the call if the loaded argument equals one of the values. */
    template <size_t Count>
    constexpr void finish_if_one_of(const uint32_t (&values)[Count]) {
        for (size_t i = 0; i < Count; ++i) {
            add(BPF_JMP | BPF_JEQ | BPF_K, values[i], Count - i);
        }
        finish(SECCOMP_RET_KILL_PROCESS);
        finish(SECCOMP_RET_ALLOW);
    }

    constexpr void finish_by(Rule rule) {
        switch (rule) {
            case Rule::kill:
                return finish(SECCOMP_RET_KILL_PROCESS);
            case Rule::allow:
                return finish(SECCOMP_RET_ALLOW);
            case Rule::missing:
                return finish(SECCOMP_RET_ERRNO | ENOSYS);
            case Rule::loop_query:
                load_argument(1);
                return finish_if_one_of({LOOP_GET_STATUS64});
            case Rule::loop_setup:
                load_argument(1);
                return finish_if_one_of({LOOP_GET_STATUS64, LOOP_CTL_GET_FREE, LOOP_CONFIGURE,
                                         LOOP_SET_FD, LOOP_SET_STATUS64, LOOP_CLR_FD});
            case Rule::data_memory:
                load_argument(2);
                add(BPF_JMP | BPF_JSET | BPF_K, PROT_EXEC, 1);
                finish(SECCOMP_RET_ALLOW);
                return finish(SECCOMP_RET_KILL_PROCESS);
            case Rule::image_mount:
                load_argument(3);
                return finish_if_one_of({MS_RDONLY | MS_NOSUID | MS_NODEV});
            case Rule::thread:
                load_argument(0);
                return finish_if_one_of({CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SYSVSEM |
                                         CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS |
                                         CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID});
            case Rule::abort_process:
                load_argument(2);
                return finish_if_one_of({SIGABRT});
        }
    }
};

/** From `first` up to the next range's first, all numbers have the same rule. */
struct Range {
    uint32_t first;
    Rule rule;
};

/** All numbers, divided into ranges. */
struct Ranges {
    Range ranges[2 * std::size(allowed_calls) + 1] = {};
    size_t count = 0;

    constexpr void add(uint32_t first, Rule rule) {
        if (count > 0 && ranges[count - 1].first == first) {
            --count;
        }
        if (count == 0 || ranges[count - 1].rule != rule) {
            ranges[count++] = {first, rule};
        }
    }
};

constexpr Rule rule_of(int number, VerbSet verb) {
    for (const AllowedCall& call : allowed_calls) {
        if (call.number == number && (call.verbs & verb) != 0) {
            return call.rule;
        }
    }
    return Rule::kill;
}

constexpr Ranges ranges_of(VerbSet verb) {
    int last = 0;
    for (const AllowedCall& call : allowed_calls) {
        last = call.number > last ? call.number : last;
    }
    Ranges ranges;
    for (int number = 0; number <= last + 1; ++number) {
        ranges.add(static_cast<uint32_t>(number), rule_of(number, verb));
    }
    return ranges;
}

/** Adds a binary search among the ranges from `begin` up to `end`. */
constexpr void add_search(Program& program, const Ranges& ranges, size_t begin, size_t end) {
    if (end - begin == 1) {
        program.finish_by(ranges.ranges[begin].rule);
        return;
    }
    const size_t middle = begin + (end - begin) / 2;
    const size_t jump = program.length;
    program.add(BPF_JMP | BPF_JGE | BPF_K, ranges.ranges[middle].first);
    add_search(program, ranges, begin, middle);
    program.steps[jump].jt = static_cast<uint8_t>(program.length - jump - 1);
    add_search(program, ranges, middle, end);
}

constexpr Program compile(VerbSet verb) {
    Program program;
    program.load(offsetof(seccomp_data, arch));
    program.add(BPF_JMP | BPF_JEQ | BPF_K, architecture, 1);
    program.finish(SECCOMP_RET_KILL_PROCESS);
    program.load(offsetof(seccomp_data, nr));
    const Ranges ranges = ranges_of(verb);
    add_search(program, ranges, 0, ranges.count);
    return program;
}

template <Verb Which>
constexpr auto compile_exactly() {
    constexpr Program program = compile(set_of(Which));
    // So that every jump reaches its target.
    static_assert(program.length <= UINT8_MAX);
    std::array<sock_filter, program.length> steps = {};
    for (size_t i = 0; i < steps.size(); ++i) {
        steps[i] = program.steps[i];
    }
    return steps;
}

template <Verb Which>
long install() {
    static constexpr auto steps = compile_exactly<Which>();
    const sock_fprog program = {static_cast<unsigned short>(steps.size()),
                                const_cast<sock_filter*>(steps.data())};
    return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program);
}

long install(Verb verb) {
    switch (verb) {
        case Verb::create:
            return install<Verb::create>();
        case Verb::remove:
            return install<Verb::remove>();
        case Verb::mount:
            return install<Verb::mount>();
        case Verb::umount:
            return install<Verb::umount>();
        case Verb::replace_image:
            return install<Verb::replace_image>();
        case Verb::copy_library:
            return install<Verb::copy_library>();
        case Verb::copy_tree:
            return install<Verb::copy_tree>();
        default:
            errno = EINVAL;
            return -1;
    }
}

}  // namespace

Outcome install_syscall_filter(Verb verb) {
    return install(verb) == 0 ? Outcome()
                              : Outcome::failed(EX_OSERR, "install", "system call filter", errno);
}

}  // namespace ad_mounter
