/**
 * Reads the kernel's list of mounts in fixed memory.
 */
#pragma once

#include "base/unique_fd.h"

#include <cstddef>

namespace ad_mounter {

/** A line of /proc/self/mountinfo, see proc(5); the texts are escaped as there. */
struct MountEntry {
    unsigned long id;
    const char* point;
    const char* source;
};

/** The mounts of this process's namespace. */
class MountList {
public:
    MountList();

    /** Reads the next mount. False at the end. The texts are valid until the next call. */
    bool next(MountEntry& entry);

private:
    bool next_line(char*& line);

    base::UniqueFd file_;
    size_t begin_ = 0;
    size_t end_ = 0;
    char buffer_[8192];
};

}  // namespace ad_mounter
