/**
 * Reads a directory's entries in small, fixed memory.
 */
#pragma once

#include <dirent.h>

namespace ad_mounter {

/** One entry; `name` is valid until the next call of DirectoryReader::next(). */
struct DirectoryEntry {
    const char* name;
    unsigned char type;  ///< DT_DIR and so on; DT_UNKNOWN where the file system does not say
};

/** getdents64(2) on an open directory, without "." and "..". The descriptor is not owned. */
class DirectoryReader {
public:
    explicit DirectoryReader(int directory) : directory_(directory) {}

    /** Reads the next entry. False at the end and on an error. */
    bool next(DirectoryEntry& entry);

    /** 0, or the errno value that ended the reading. */
    int error() const { return error_; }

private:
    int directory_;
    int error_ = 0;
    long filled_ = 0;
    long used_ = 0;
    alignas(long long) char buffer_[8192];
};

}  // namespace ad_mounter
