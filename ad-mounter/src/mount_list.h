// The kernel's list of mounts, read in fixed memory.
#ifndef AD_MOUNTER_MOUNT_LIST_H
#define AD_MOUNTER_MOUNT_LIST_H

#include "unique_fd.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

/** One line of /proc/self/mountinfo (proc(5)); the texts are escaped as there. */
struct MountEntry {
    uint64_t id;
    const char* point;
    const char* source;
};

/** Walks over the mounts of this process. */
class MountList {
public:
    MountList();

    /** The next mount; false at the end. The texts are valid until the next call. */
    bool next(MountEntry& entry);

private:
    bool next_line(char*& line);

    UniqueFd file_;
    size_t begin_ = 0;
    size_t end_ = 0;
    char buffer_[8192];
};

}  // namespace ad_mounter

#endif
