#include "trailer.h"

#include "little_endian.h"

#include <algorithm>
#include <cstring>

namespace ad_mounter {

namespace {

constexpr std::string_view magic = "ADIMGSIG";
constexpr uint64_t layout = 1;
constexpr std::string_view version_prefix = "version:";

// Finds the one word of the trusted comment that states the version.
bool find_version(std::string_view comment, char (&version)[version_size]) {
    int found = 0;
    while (!comment.empty()) {
        const size_t end = std::min(comment.find_first_of(" \t"), comment.size());
        // Not substr(), which would link the support for exceptions.
        std::string_view word(comment.data(), end);
        comment.remove_prefix(std::min(end + 1, comment.size()));
        if (word.compare(0, version_prefix.size(), version_prefix) != 0) {
            continue;
        }
        word.remove_prefix(version_prefix.size());
        if (++found > 1 || !copy_version(word, version)) {
            return false;
        }
    }
    return found == 1;
}

}  // namespace

Trailer parse_trailer(const unsigned char* bytes, size_t length, uint64_t file_size) {
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
    if (trailer.rejection == nullptr && !find_version(trailer.signature.comment, trailer.version)) {
        trailer.rejection = "signed comment does not state exactly one version";
    }
    return trailer;
}

}  // namespace ad_mounter
