#include "privileges.h"

#include "landlock.h"
#include "syscall_filter.h"

#include <cerrno>

#include <grp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

Outcome keep_capabilities(uint64_t needed) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return Outcome::failed(EX_OSERR, "drop", "capabilities", errno);
    }
    for (unsigned i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
        // Where one is missing, the call that needs it fails and says so.
        data[i].permitted &= static_cast<uint32_t>(needed >> (32 * i));
        data[i].effective = data[i].permitted;
        data[i].inheritable = 0;
    }
    return syscall(SYS_capset, &header, data) == 0
               ? Outcome()
               : Outcome::failed(EX_OSERR, "drop", "capabilities", errno);
}

// The bounding set keeps even root from regaining a capability by executing a program.
Outcome clear_bounding_set() {
    // EINVAL stands for the first one that the kernel does not know.
    unsigned long capability = 0;
    while (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) {
        ++capability;
    }
    return errno == EINVAL && capability > CAP_SYS_ADMIN
               ? Outcome()
               : Outcome::failed(EX_OSERR, "clear", "capability bounding set", errno);
}

}  // namespace

Outcome become_root(Caller& caller) {
    caller = {getuid(), getgid()};
    if (geteuid() != 0) {
        return Outcome::refused(EX_NOPERM, "acquire", "root privileges", "not running as root");
    }
    if (caller.user == 0) {
        caller.group = 0;
    } else if (setgroups(0, nullptr) != 0) {
        return Outcome::failed(EX_OSERR, "drop", "supplementary groups", errno);
    }
    return setresgid(0, 0, 0) == 0 && setresuid(0, 0, 0) == 0
               ? Outcome()
               : Outcome::failed(EX_OSERR, "acquire", "root privileges", errno);
}

Outcome drop_privileges(const CommandSpec& command, const Operation& request) {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return Outcome::failed(EX_OSERR, "set", "no_new_privs", errno);
    }
    TRY(clear_bounding_set());
    if ((command.capabilities & (1U << CAP_SYS_ADMIN)) == 0) {
        TRY(restrict_paths(request));
    }
    TRY(keep_capabilities(command.capabilities));
    return install_syscall_filter(command.verb);
}

}  // namespace ad_mounter
