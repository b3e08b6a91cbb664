#include "copy.h"

#include "aside_file.h"
#include "pinned_path.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr size_t own_buffer_size = size_t{256} << 10;
// What is handed to write-back at a time.
constexpr size_t piece_size = size_t{1} << 20;

// 0 or an errno.
int write_whole(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return errno;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

// Only a head start; fsync() is what counts and what fails.
void start_writing_back(int fd, uint64_t offset, size_t size) {
    (void)sync_file_range(fd, static_cast<off64_t>(offset), static_cast<off64_t>(size),
                          SYNC_FILE_RANGE_WRITE);
}

// Copies until `done` is `size`, or until the kernel says EINVAL or ENOSYS,
// which are success with less done.
int copy_in_kernel(int from, int to, uint64_t size, uint64_t& done) {
    while (done < size) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(piece_size, size - done));
        const ssize_t copied = sendfile(to, from, nullptr, wanted);
        if (copied < 0 && errno == EINTR) {
            continue;
        }
        if (copied < 0 && (errno == EINVAL || errno == ENOSYS)) {
            return 0;
        }
        if (copied <= 0) {
            return copied < 0 ? errno : EIO;
        }
        start_writing_back(to, done, static_cast<size_t>(copied));
        done += static_cast<uint64_t>(copied);
    }
    return 0;
}

}  // namespace

int copy_bytes(int from, int to, uint64_t size, char* buffer, size_t buffer_size) {
    uint64_t done = 0;
    if (size > buffer_size) {
        // One copy from page cache to page cache instead of two through here.
        const int error = copy_in_kernel(from, to, size, done);
        if (error != 0) {
            return error;
        }
    }
    while (done < size) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer_size, size - done));
        const ssize_t got = read(from, buffer, wanted);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got < 0 ? errno : EIO;
        }
        const int error = write_whole(to, buffer, static_cast<size_t>(got));
        if (error != 0) {
            return error;
        }
        if (size > buffer_size) {
            start_writing_back(to, done, static_cast<size_t>(got));
        }
        done += static_cast<uint64_t>(got);
    }
    return 0;
}

int copy_bytes(int from, int to, uint64_t size) {
    alignas(4096) static char buffer[own_buffer_size];
    return copy_bytes(from, to, size, buffer, sizeof buffer);
}

Outcome pin_target(const Row& row, const Caller& caller, Place& place) {
    char parent[PATH_MAX];
    const char* slash = strrchr(row.target, '/');
    snprintf(parent, sizeof parent, "%.*s", static_cast<int>(slash - row.target), row.target);
    place.name = slash + 1;
    place.path = row.target;
    return ensure_directory(parent, caller, place.directory);
}

Outcome copy_library(const Row& row, const Caller& caller) {
    const UniqueFd source(open_absolute(row.first, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!source.valid() || fstat(source.get(), &status) != 0) {
        return Outcome::failed("opening the source", row.first, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Outcome::refused(EX_DATAERR, "opening the source", row.first, "not a regular file");
    }
    Place place;
    Outcome outcome = pin_target(row, caller, place);
    if (!outcome.ok()) {
        return outcome;
    }
    AsideFile file(place);
    outcome = file.clean();
    if (outcome.ok()) {
        outcome = refuse_link(place);
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    if (outcome.ok()) {
        outcome = file.make(size);
    }
    if (!outcome.ok()) {
        return outcome;
    }
    const int error = copy_bytes(source.get(), file.fd(), size);
    if (error != 0) {
        return Outcome::failed("copying", row.target, error);
    }
    return file.commit(row.mode);
}

}  // namespace ad_mounter
