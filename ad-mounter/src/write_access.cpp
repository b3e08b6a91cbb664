#include "write_access.h"

#include "trusted_path.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/vfs.h>

namespace ad_mounter {

namespace {

// File systems whose owners and modes are what a server, a user's process or a mount option
// says. Numbers of statfs(2); <linux/magic.h> lacks some.
constexpr uint32_t untrusted_file_systems[] = {
    0x65735546,  // FUSE
    0x6969,      // NFS
    0x517b,      // SMB
    0xff534d42,  // CIFS
    0xfe534d42,  // SMB2
    0x01021997,  // 9P
    0x00c36400,  // Ceph
    0x5346414f,  // AFS
    0x6b414653,  // kAFS
    0x73757245,  // Coda
    0x564c,      // NCP
    0x4d44,      // FAT
    0x2011bab0,  // exFAT
    0x5346544e,  // NTFS
    0x7366746e,  // NTFS3
    0x482b,      // HFS+
    0x4244,      // HFS
    0x9660,      // ISO 9660
    0x15013346,  // UDF
    0xadff,      // AFFS
    0x00c0ffee,  // hostfs
    0x786f4256,  // VirtualBox
};

}  // namespace

const char* foreign_write_access(int fd, const struct stat& status) {
    const char* reason = untrusted_reason(status);
    if (reason != nullptr) {
        return reason;
    }
    struct statfs file_system;
    if (fstatfs(fd, &file_system) != 0) {
        return "file system unknown";
    }
    for (const uint32_t type : untrusted_file_systems) {
        if (static_cast<uint32_t>(file_system.f_type) == type) {
            return "on a file system that does not keep owners itself";
        }
    }
    if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN ? "open for writing" : "read lease not granted";
    }
    // Nobody but root can open it for writing from now on. A lease that is held would delay
    // root, and a loop device would keep it beyond this process.
    (void)fcntl(fd, F_SETLEASE, F_UNLCK);
    return nullptr;
}

}  // namespace ad_mounter
