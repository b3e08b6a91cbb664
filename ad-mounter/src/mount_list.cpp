#include "mount_list.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

// Cuts the next field, which ends at a blank, off `rest`. Null when there is none.
char* cut_field(char*& rest) {
    if (rest == nullptr || *rest == '\0') {
        return nullptr;
    }
    char* field = rest;
    rest = strchr(rest, ' ');
    if (rest != nullptr) {
        *rest++ = '\0';
    }
    return field;
}

bool parse(char* line, MountEntry& entry) {
    // 36 35 98:0 /root /point options optional... - type source super-options
    char* rest = line;
    const char* id = cut_field(rest);
    for (int skipped = 0; skipped < 3; ++skipped) {
        cut_field(rest);
    }
    entry.point = cut_field(rest);
    const char* field = cut_field(rest);
    while (field != nullptr && strcmp(field, "-") != 0) {
        field = cut_field(rest);
    }
    cut_field(rest);
    entry.source = cut_field(rest);
    if (entry.source == nullptr) {
        return false;
    }
    entry.id = strtoul(id, nullptr, 10);
    return true;
}

}  // namespace

MountList::MountList() : file_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

bool MountList::next_line(char*& line) {
    for (;;) {
        if (auto* newline = static_cast<char*>(memchr(buffer_ + begin_, '\n', end_ - begin_))) {
            *newline = '\0';
            line = buffer_ + begin_;
            begin_ = static_cast<size_t>(newline - buffer_) + 1;
            return true;
        }
        memmove(buffer_, buffer_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        if (end_ == sizeof buffer_) {
            // Not a mount of ours: its line would fit. The rest of it counts as a line.
            end_ = 0;
        }
        const ssize_t got = read(file_.get(), buffer_ + end_, sizeof buffer_ - end_);
        if (got <= 0) {
            return false;
        }
        end_ += static_cast<size_t>(got);
    }
}

bool MountList::next(MountEntry& entry) {
    char* line = nullptr;
    while (next_line(line)) {
        if (parse(line, entry)) {
            return true;
        }
    }
    return false;
}

}  // namespace ad_mounter
