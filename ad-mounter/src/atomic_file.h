/**
 * Writes a temporary sibling and renames it into place atomically.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"
#include "target.h"

#include <cstdint>

namespace ad_mounter {

/**
 * The new contents of the file `target`, which must outlive this object. The old file stays
 * untouched until commit(); without commit() the temporary is removed.
 */
class AtomicFile {
public:
    explicit AtomicFile(const Target& target)
        : target_(target), temporary_(temporary_name(target.name)) {}
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    /** Removes what a killed run left behind. */
    Outcome remove_leftover();

    /** Creates the temporary, empty, provided that `size` bytes are free. */
    Outcome create(uint64_t size);

    /** Makes the temporary a hard link to the open file `fd`, which must outlive this object.
     * Returns 0 or an errno value. */
    int link(int fd);

    /** The temporary, open for reading and writing; after link() its argument. Not owned. */
    int fd() const { return fd_; }

    /** Sets owner and mode, syncs the file, renames it into place and syncs the directory. */
    Outcome commit(const Ownership& ownership, Existing existing = Existing::replace);

private:
    const Target& target_;
    SiblingName temporary_;
    base::UniqueFd created_;
    int fd_ = -1;
    bool pending_ = false;
};

}  // namespace ad_mounter
