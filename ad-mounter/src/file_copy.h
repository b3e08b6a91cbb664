/**
 * Copies the contents of files.
 */
#pragma once

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

/**
 * Copies `size` bytes from the start of `from` to the empty file `to`, starting write-back of
 * each piece while the next one is copied. `buffer` is for small files and for file systems
 * without sendfile(2). Returns 0 or an errno value; EIO when the source ends early.
 */
int copy_bytes(int from, int to, uint64_t size, char* buffer, size_t buffer_size);

/** Starts the write-back of `size` bytes at `offset`; errors are left to fsync(2). */
void start_write_back(int fd, uint64_t offset, size_t size);

/** As above with a static buffer; not thread-safe. */
int copy_bytes(int from, int to, uint64_t size);

}  // namespace ad_mounter
