#include "file_copy.h"

#include "base/file_io.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr size_t static_buffer_size = size_t{256} << 10;
// How much is copied, and handed to write-back, at a time.
constexpr size_t piece_size = size_t{1} << 20;

// Copies from page cache to page cache, `done` bytes in the end: fewer than `size` where the
// file system cannot do it. Returns 0 or an errno value.
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
        start_write_back(to, done, static_cast<size_t>(copied));
        done += static_cast<uint64_t>(copied);
    }
    return 0;
}

}  // namespace

void start_write_back(int fd, uint64_t offset, size_t size) {
    (void)sync_file_range(fd, static_cast<off64_t>(offset), static_cast<off64_t>(size),
                          SYNC_FILE_RANGE_WRITE);
}

int copy_bytes(int from, int to, uint64_t size, char* buffer, size_t buffer_size) {
    uint64_t done = 0;
    const bool large = size > buffer_size;
    const int error = large ? copy_in_kernel(from, to, size, done) : 0;
    if (error != 0) {
        return error;
    }
    while (done < size) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer_size, size - done));
        const ssize_t got = base::read_full(from, buffer, wanted);
        if (got < 0) {
            return errno;
        }
        if (static_cast<size_t>(got) < wanted) {
            return EIO;
        }
        if (!base::write_full(to, buffer, wanted)) {
            return errno;
        }
        if (large) {
            start_write_back(to, done, wanted);
        }
        done += wanted;
    }
    return 0;
}

int copy_bytes(int from, int to, uint64_t size) {
    alignas(4096) static char buffer[static_buffer_size];
    return copy_bytes(from, to, size, buffer, sizeof buffer);
}

}  // namespace ad_mounter
