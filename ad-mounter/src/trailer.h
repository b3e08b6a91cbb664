// The trailer of an image: the signature behind the file system.
#ifndef AD_MOUNTER_TRAILER_H
#define AD_MOUNTER_TRAILER_H

#include "version_text.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

/** The end of a trailer, of a fixed size. */
constexpr size_t footer_size = 16;

/** As many of an image's last bytes as parse_trailer() looks at. */
constexpr size_t longest_trailer = 4096 + footer_size;

constexpr size_t key_id_size = 8;
constexpr size_t signature_size = 64;

/** What a trailer holds; nothing of it is verified. */
struct Trailer {
    const char* refusal = nullptr;  ///< why it is none; null when it is
    size_t length = 0;              ///< of the whole trailer
    unsigned char key_id[key_id_size] = {};
    unsigned char signature[signature_size] = {};  ///< of the BLAKE2b-512 hash of what precedes
    unsigned char comment_signature[signature_size] = {};  ///< of `signature` and the comment
    const char* comment = nullptr;  ///< the trusted comment, inside the bytes that were parsed
    size_t comment_length = 0;
    char version[version_size] = "";  ///< that the trusted comment names
};

/**
 * Takes the trailer of a file of `file_size` bytes apart. `bytes` are its last
 * `length` ones: all of them, or longest_trailer at least; they must outlive
 * what is returned. There is one way only to write a signature: what differs
 * in a bit is refused, also where minisign(1) would not look.
 */
Trailer parse_trailer(const unsigned char* bytes, size_t length, uint64_t file_size);

}  // namespace ad_mounter

#endif
