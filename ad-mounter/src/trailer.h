/**
 * The trailer of an image: a signature file appended to the file system, and a footer.
 */
#pragma once

#include "minisign.h"
#include "version_text.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

constexpr size_t footer_size = 16;

/** How many of an image's last bytes parse_trailer() reads. */
constexpr size_t max_trailer_size = 4096 + footer_size;

/** The contents of a trailer; nothing of it is verified. */
struct Trailer {
    const char* rejection = nullptr;  ///< why it is not accepted; null when it is
    size_t length = 0;                ///< of the whole trailer
    Signature signature;
    char version[version_size] = "";  ///< from the trusted comment
};

/**
 * Parses the trailer of a file of `file_size` bytes. `bytes` are its last `length` ones: all
 * of them, or at least max_trailer_size; they must outlive the result. Each trailer has
 * exactly one spelling.
 */
Trailer parse_trailer(const unsigned char* bytes, size_t length, uint64_t file_size);

}  // namespace ad_mounter
