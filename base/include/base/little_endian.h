/**
 * Numbers as images store them.
 */
#pragma once

#include <cstddef>
#include <cstdint>

namespace base {

/** The unsigned number in the `width` bytes at `bytes`, lowest byte first. */
inline uint64_t little_endian(const unsigned char* bytes, size_t width) {
    uint64_t value = 0;
    for (size_t i = width; i > 0; --i) {
        value = value << 8 | bytes[i - 1];
    }
    return value;
}

}  // namespace base
