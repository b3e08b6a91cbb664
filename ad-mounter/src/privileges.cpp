#include "privileges.h"

#include <cerrno>
#include <cstdint>

#include <grp.h>
#include <linux/capability.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "reducing rights";
constexpr const char* process = "process";

constexpr uint64_t bit(unsigned capability) { return uint64_t{1} << capability; }

constexpr uint64_t needed_capabilities(Verb verb) {
    switch (verb) {
        case Verb::mount:
        case Verb::umount:
            return bit(CAP_SYS_ADMIN) | bit(CAP_DAC_OVERRIDE);
        case Verb::replace_image:
            // The manifest is read from a mount.
            return bit(CAP_SYS_ADMIN) | bit(CAP_DAC_OVERRIDE) | bit(CAP_CHOWN) | bit(CAP_FOWNER);
        case Verb::create:
        case Verb::copy_library:
        case Verb::copy_tree:
            return bit(CAP_DAC_OVERRIDE) | bit(CAP_CHOWN) | bit(CAP_FOWNER);
        case Verb::remove:
            return bit(CAP_DAC_OVERRIDE) | bit(CAP_FOWNER);
        default:
            return 0;
    }
}

Outcome keep_capabilities(uint64_t needed) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return Outcome::failed(EX_OSERR, step, process, errno);
    }
    for (unsigned i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
        // What is not there cannot be kept; the step that needs it will say so.
        data[i].permitted &= static_cast<uint32_t>(needed >> (32 * i));
        data[i].effective = data[i].permitted;
        data[i].inheritable = 0;
    }
    if (syscall(SYS_capset, &header, data) != 0) {
        return Outcome::failed(EX_OSERR, step, process, errno);
    }
    return {};
}

constexpr int forbidden_calls[] = {
    SCMP_SYS(execve),
    SCMP_SYS(execveat),
    SCMP_SYS(socket),
    SCMP_SYS(socketpair),
    SCMP_SYS(ptrace),
    SCMP_SYS(process_vm_readv),
    SCMP_SYS(process_vm_writev),
};

Outcome filter_calls() {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) {
        return Outcome::failed(EX_OSERR, step, "filter", ENOMEM);
    }
    // Whether the process may gain privileges was settled before.
    int error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_NNP, 0);
    for (const int call : forbidden_calls) {
        if (error == 0) {
            error = seccomp_rule_add(filter, SCMP_ACT_KILL_PROCESS, call, 0);
        }
    }
    if (error == 0) {
        error = seccomp_load(filter);
    }
    seccomp_release(filter);
    return error == 0 ? Outcome() : Outcome::failed(EX_OSERR, step, "filter", -error);
}

}  // namespace

Outcome become_root(Caller& caller) {
    caller = {getuid(), getgid()};
    if (geteuid() != 0) {
        return Outcome::refused(EX_NOPERM, "starting", process, "not running as root");
    }
    if (caller.user == 0) {
        caller.group = 0;
    } else if (setgroups(0, nullptr) != 0) {
        return Outcome::failed(EX_OSERR, "becoming root", process, errno);
    }
    if (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0) {
        return Outcome::failed(EX_OSERR, "becoming root", process, errno);
    }
    return {};
}

Outcome reduce_rights(Verb verb) {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return Outcome::failed(EX_OSERR, step, process, errno);
    }
    const Outcome kept = keep_capabilities(needed_capabilities(verb));
    return kept.ok() ? filter_calls() : kept;
}

}  // namespace ad_mounter
