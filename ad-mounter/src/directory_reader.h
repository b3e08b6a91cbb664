// Reads a directory's entries from its descriptor, in small and fixed memory.
#ifndef AD_MOUNTER_DIRECTORY_READER_H
#define AD_MOUNTER_DIRECTORY_READER_H

#include <cstddef>

#include <dirent.h>

namespace ad_mounter {

/** One entry; `name` is valid until the next call of next(). */
struct DirectoryEntry {
    const char* name;
    unsigned char type;  ///< DT_DIR and so on; DT_UNKNOWN where the file system does not say
};

/** getdents64(2) over `directory`, without "." and "..". The descriptor is not owned. */
class DirectoryReader {
public:
    explicit DirectoryReader(int directory) : directory_(directory) {}

    /** The next entry; false at the end and on an error. */
    bool next(DirectoryEntry& entry);

    /** 0, or the errno that ended the reading. */
    int error() const { return error_; }

private:
    int directory_;
    int error_ = 0;
    long filled_ = 0;
    long used_ = 0;
    alignas(long long) char buffer_[8192];
};

}  // namespace ad_mounter

#endif
