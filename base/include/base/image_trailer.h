/**
 * The trailer of an image: a signature file appended to the file system, and a footer. Nothing
 * is verified here. No exceptions, no allocation.
 */
#pragma once

#include "base/little_endian.h"
#include "base/minisign.h"
#include "base/trusted_comment.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace base {

constexpr size_t footer_size = 16;

/** How many of an image's last bytes parse_trailer() reads. */
constexpr size_t max_trailer_size = 4096 + footer_size;

/** The contents of a trailer; nothing of it is verified. */
struct Trailer {
    const char* rejection = nullptr;  ///< why it is not accepted; null when it is
    size_t length = 0;                ///< of the whole trailer
    Signature signature;
    TrustedComment comment;  ///< what the trusted comment states
};

/**
 * Parses the trailer of a file of `file_size` bytes. `bytes` are its last `length` ones: all
 * of them, or at least max_trailer_size; they must outlive the result. Each trailer has
 * exactly one spelling.
 */
inline Trailer parse_trailer(const unsigned char* bytes, size_t length, uint64_t file_size) {
    constexpr std::string_view magic = "ADIMGSIG";
    constexpr uint64_t layout = 1;
    Trailer trailer;
    if (length < footer_size ||
        memcmp(bytes + length - footer_size, magic.data(), magic.size()) != 0) {
        trailer.rejection = "not signed";
        return trailer;
    }
    const unsigned char* footer = bytes + length - footer_size;
    const uint64_t text_size = little_endian(footer + magic.size(), 4);
    if (little_endian(footer + magic.size() + 4, 4) != layout) {
        trailer.rejection = "unsupported trailer layout";
    } else if (text_size > max_trailer_size - footer_size || text_size > length - footer_size ||
               text_size + footer_size >= file_size) {
        trailer.rejection = "invalid trailer length";
    } else {
        trailer.length = text_size + footer_size;
        const std::string_view text(reinterpret_cast<const char*>(footer - text_size), text_size);
        trailer.rejection = parse_signature(text, trailer.signature);
    }
    if (trailer.rejection == nullptr) {
        trailer.rejection = parse_trusted_comment(trailer.signature.comment, trailer.comment);
    }
    return trailer;
}

}  // namespace base
