#include "trailer.h"

#include <cstring>
#include <string_view>

#include <sodium.h>

namespace ad_mounter {

namespace {

constexpr std::string_view magic = "ADIMGSIG";
constexpr uint32_t layout = 1;
// Of a hash; minisign's other algorithm signs the file itself, which would have
// to be in memory.
constexpr std::string_view algorithm = "ED";

// The first line is not signed, so it is one of these and nothing else.
constexpr std::string_view untrusted_comments[] = {
    "untrusted comment: signature of an update image",
    "untrusted comment: signature from minisign secret key",
};
constexpr std::string_view trusted_prefix = "trusted comment: ";
constexpr std::string_view version_prefix = "version:";

std::string_view view(const unsigned char* bytes, size_t length) {
    return {reinterpret_cast<const char*>(bytes), length};
}

uint32_t number_at(const unsigned char* bytes) {
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           uint32_t{bytes[3]} << 24;
}

bool take(std::string_view& text, std::string_view expected) {
    if (text.compare(0, expected.size(), expected) != 0) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

bool take_line(std::string_view& text, std::string_view& line) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = {text.data(), end};
    text.remove_prefix(end + 1);
    return true;
}

// Exactly `size` bytes in the one way that base64 writes them: the decoder also
// takes some characters outside its alphabet, so it is written once more.
bool decode(std::string_view line, unsigned char* bytes, size_t size) {
    constexpr int variant = sodium_base64_VARIANT_ORIGINAL;
    char again[sodium_base64_ENCODED_LEN(2 + key_id_size + signature_size, variant)];
    size_t decoded = 0;
    return sodium_base642bin(bytes, size, line.data(), line.size(), nullptr, &decoded, nullptr,
                             variant) == 0 &&
           decoded == size && sodium_bin2base64(again, sizeof again, bytes, size, variant) == line;
}

bool is_untrusted_comment(std::string_view line) {
    for (const std::string_view known : untrusted_comments) {
        if (line == known) {
            return true;
        }
    }
    return false;
}

// Among the words of the trusted comment exactly one names the version.
bool find_version(std::string_view comment, char (&version)[version_size]) {
    int found = 0;
    while (!comment.empty()) {
        size_t end = comment.find_first_of(" \t");
        if (end == std::string_view::npos) {
            end = comment.size();
        }
        std::string_view word(comment.data(), end);
        comment.remove_prefix(end < comment.size() ? end + 1 : end);
        if (!take(word, version_prefix)) {
            continue;
        }
        if (++found > 1 || !keep_version(word, version)) {
            return false;
        }
    }
    return found == 1;
}

const char* parse_signature(std::string_view text, Trailer& trailer) {
    constexpr const char* damaged = "its signature is damaged";
    std::string_view untrusted;
    std::string_view encoded;
    std::string_view trusted;
    std::string_view encoded_global;
    if (!take_line(text, untrusted) || !take_line(text, encoded) || !take_line(text, trusted) ||
        !take_line(text, encoded_global) || !text.empty() || !is_untrusted_comment(untrusted) ||
        !take(trusted, trusted_prefix)) {
        return damaged;
    }
    unsigned char signature[algorithm.size() + key_id_size + signature_size];
    if (!decode(encoded, signature, sizeof signature) ||
        !decode(encoded_global, trailer.comment_signature, signature_size)) {
        return damaged;
    }
    if (view(signature, algorithm.size()) != algorithm) {
        return "its signature is of a kind that is not taken";
    }
    memcpy(trailer.key_id, signature + algorithm.size(), key_id_size);
    memcpy(trailer.signature, signature + algorithm.size() + key_id_size, signature_size);
    trailer.comment = trusted.data();
    trailer.comment_length = trusted.size();
    return find_version(trusted, trailer.version) ? nullptr
                                                  : "its signature does not name one version";
}

}  // namespace

Trailer parse_trailer(const unsigned char* bytes, size_t length, uint64_t file_size) {
    Trailer trailer;
    if (length < footer_size || view(bytes + length - footer_size, magic.size()) != magic) {
        trailer.refusal = "it is not signed";
        return trailer;
    }
    const unsigned char* footer = bytes + length - footer_size;
    const size_t text_size = number_at(footer + magic.size());
    if (number_at(footer + magic.size() + 4) != layout) {
        trailer.refusal = "its signature has a layout that is not known";
    } else if (text_size > longest_trailer - footer_size || text_size > length - footer_size ||
               text_size + footer_size >= file_size) {
        trailer.refusal = "its signature's length is wrong";
    } else {
        trailer.length = text_size + footer_size;
        trailer.refusal = parse_signature(view(footer - text_size, text_size), trailer);
    }
    return trailer;
}

}  // namespace ad_mounter
