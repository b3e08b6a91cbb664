/**
 * read(2), pread(2), write(2) and pwrite(2) that go on after a signal and after
 * a partial transfer. No exceptions, no allocation.
 */
#pragma once

#include <cerrno>
#include <cstddef>

#include <sys/types.h>
#include <unistd.h>

namespace base {

/** Repeats `transfer(done)`, which moves bytes from offset `done` on, until `size` bytes are
 * done, the end is reached or an error. Returns the bytes done, or -1 with errno set. */
template <typename Transfer>
ssize_t transfer_in_full(size_t size, Transfer transfer) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = transfer(done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

/** Reads `size` bytes. Returns how many, fewer only at the end of the file; -1 with errno set. */
inline ssize_t read_full(int fd, void* buffer, size_t size) {
    return transfer_in_full(size, [=](size_t done) {
        return read(fd, static_cast<char*>(buffer) + done, size - done);
    });
}

/** Reads `size` bytes from `offset` on. Returns what read_full() does. */
inline ssize_t pread_full(int fd, void* buffer, size_t size, off_t offset) {
    return transfer_in_full(size, [=](size_t done) {
        return pread(fd, static_cast<char*>(buffer) + done, size - done,
                     offset + static_cast<off_t>(done));
    });
}

/** Writes all `size` bytes. Returns false with errno set when it cannot. */
inline bool write_full(int fd, const void* data, size_t size) {
    const ssize_t written = transfer_in_full(size, [=](size_t done) {
        return write(fd, static_cast<const char*>(data) + done, size - done);
    });
    return written == static_cast<ssize_t>(size);
}

/** Writes all `size` bytes from `offset` on. Returns false with errno set when it cannot. */
inline bool pwrite_full(int fd, const void* data, size_t size, off_t offset) {
    const ssize_t written = transfer_in_full(size, [=](size_t done) {
        return pwrite(fd, static_cast<const char*>(data) + done, size - done,
                      offset + static_cast<off_t>(done));
    });
    return written == static_cast<ssize_t>(size);
}

}  // namespace base
