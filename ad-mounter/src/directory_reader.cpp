#include "directory_reader.h"

#include <cerrno>
#include <cstring>

namespace ad_mounter {

bool DirectoryReader::next(DirectoryEntry& entry) {
    for (;;) {
        if (used_ >= filled_) {
            filled_ = getdents64(directory_, buffer_, sizeof buffer_);
            used_ = 0;
            if (filled_ <= 0) {
                error_ = filled_ < 0 ? errno : 0;
                filled_ = 0;
                return false;
            }
        }
        const auto* record = reinterpret_cast<const dirent64*>(buffer_ + used_);
        used_ += record->d_reclen;
        if (strcmp(record->d_name, ".") == 0 || strcmp(record->d_name, "..") == 0) {
            continue;
        }
        entry.name = record->d_name;
        entry.type = record->d_type;
        return true;
    }
}

}  // namespace ad_mounter
