// A file prepared beside its final name and put in place in one step.
#ifndef AD_MOUNTER_ASIDE_FILE_H
#define AD_MOUNTER_ASIDE_FILE_H

#include "messages.h"
#include "pinned_path.h"

#include <cstdint>

#include <sys/types.h>

namespace ad_mounter {

/**
 * What becomes the file `place`. Until commit() the old file is untouched, and
 * without it nothing is left. `place` must outlive this object.
 */
class AsideFile {
public:
    explicit AsideFile(const Place& place);
    AsideFile(const AsideFile&) = delete;
    AsideFile& operator=(const AsideFile&) = delete;
    ~AsideFile();

    /** Removes what a run that was cut short left behind. */
    Outcome clean();

    /** Makes an empty file of `size` bytes to come, after a look whether there is room. */
    Outcome make(uint64_t size);

    /** Takes a further name of the open file `fd` instead. 0 or an errno. */
    int link(int fd);

    /** The file, for reading and writing; with link() the descriptor given there. */
    int fd() const { return fd_; }

    /** Owner root, the mode, fsync, rename, fsync of the directory. */
    Outcome commit(mode_t mode);

private:
    const Place& place_;
    SiblingName aside_;
    UniqueFd made_;
    int fd_ = -1;
    bool pending_ = false;
};

/** Success, or a refusal because `place` is a symbolic link. */
Outcome refuse_link(const Place& place);

}  // namespace ad_mounter

#endif
