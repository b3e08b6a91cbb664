#include "privileges.h"

#include <cerrno>
#include <cstdint>
#include <iterator>

#include <grp.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
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

// Made by libseccomp during the build.
constexpr sock_filter filter_steps[] = {
#include "filter_steps.inc"
};

Outcome filter_calls() {
    const sock_fprog program = {static_cast<unsigned short>(std::size(filter_steps)),
                                const_cast<sock_filter*>(filter_steps)};
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0) {
        return Outcome::failed(EX_OSERR, step, "filter", errno);
    }
    return {};
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
