/**
 * The text formats of minisign(1): public keys and signatures. Nothing is verified here. No
 * exceptions, no allocation.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace base {

constexpr size_t key_id_size = 8;
constexpr size_t signature_size = 64;

struct PublicKey {
    unsigned char id[key_id_size];
    unsigned char key[32];  ///< Ed25519
};

/** The contents of a signature file; nothing of it is verified. */
struct Signature {
    unsigned char key_id[key_id_size] = {};
    unsigned char signature[signature_size] = {};          ///< of the BLAKE2b-512 hash of the file
    unsigned char comment_signature[signature_size] = {};  ///< of `signature` and the comment
    std::string_view comment;  ///< the trusted comment; points into the parsed text
};

namespace detail {

constexpr std::string_view key_algorithm = "Ed";
// Signs the file's hash. minisign's other one signs the file itself, which would have to fit
// into memory.
constexpr std::string_view signature_algorithm = "ED";

constexpr std::string_view untrusted_prefix = "untrusted comment: ";
constexpr std::string_view trusted_prefix = "trusted comment: ";
// The first line of a signature is not signed, so its text is fixed.
constexpr std::string_view untrusted_comments[] = {
    "untrusted comment: signature of an update image",
    "untrusted comment: signature from minisign secret key",
};

inline bool consume(std::string_view& text, std::string_view expected) {
    if (text.compare(0, expected.size(), expected) != 0) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

inline bool consume_line(std::string_view& text, std::string_view& line) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = {text.data(), end};
    text.remove_prefix(end + 1);
    return true;
}

// Decodes base64 of exactly `size` bytes, with padding. Only one spelling of the same bytes is
// accepted: the bits that the last digit does not need are zero.
inline bool decode_base64(std::string_view text, unsigned char* bytes, size_t size) {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() != (size + 2) / 3 * 4) {
        return false;
    }
    const size_t padding = (3 - size % 3) % 3;
    uint32_t bits = 0;
    unsigned count = 0;
    for (size_t i = 0; i < text.size() - padding; ++i) {
        const size_t digit = digits.find(text[i]);
        if (digit == std::string_view::npos) {
            return false;
        }
        bits = bits << 6 | static_cast<uint32_t>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            *bytes++ = static_cast<unsigned char>(bits >> count);
            bits &= (1U << count) - 1;
        }
    }
    text.remove_prefix(text.size() - padding);
    return bits == 0 && text.find_first_not_of('=') == std::string_view::npos;
}

inline bool is_known_untrusted_comment(std::string_view line) {
    return std::any_of(std::begin(untrusted_comments), std::end(untrusted_comments),
                       [line](std::string_view known) { return line == known; });
}

}  // namespace detail

/** Parses a public key file. Returns false when it is not one. */
inline bool parse_public_key(std::string_view text, PublicKey& key) {
    constexpr size_t algorithm_size = detail::key_algorithm.size();
    std::string_view comment;
    if (!detail::consume_line(text, comment) ||
        !detail::consume(comment, detail::untrusted_prefix)) {
        return false;
    }
    const std::string_view line(text.data(), std::min(text.find_first_of("\r\n"), text.size()));
    unsigned char bytes[algorithm_size + sizeof(PublicKey)];
    if (!detail::decode_base64(line, bytes, sizeof bytes) ||
        memcmp(bytes, detail::key_algorithm.data(), algorithm_size) != 0) {
        return false;
    }
    memcpy(key.id, bytes + algorithm_size, sizeof key.id);
    memcpy(key.key, bytes + algorithm_size + sizeof key.id, sizeof key.key);
    return true;
}

/**
 * Parses a signature file. Each signature has exactly one spelling: a text that differs from
 * it in any bit is rejected, even where minisign would accept it. Returns null, or why the
 * text is rejected.
 */
inline const char* parse_signature(std::string_view text, Signature& signature) {
    constexpr size_t algorithm_size = detail::signature_algorithm.size();
    std::string_view untrusted;
    std::string_view encoded;
    std::string_view trusted;
    std::string_view encoded_comment_signature;
    unsigned char bytes[algorithm_size + key_id_size + signature_size];
    if (!detail::consume_line(text, untrusted) || !detail::consume_line(text, encoded) ||
        !detail::consume_line(text, trusted) ||
        !detail::consume_line(text, encoded_comment_signature) || !text.empty() ||
        !detail::is_known_untrusted_comment(untrusted) ||
        !detail::consume(trusted, detail::trusted_prefix) ||
        !detail::decode_base64(encoded, bytes, sizeof bytes) ||
        !detail::decode_base64(encoded_comment_signature, signature.comment_signature,
                               signature_size)) {
        return "malformed signature";
    }
    if (memcmp(bytes, detail::signature_algorithm.data(), algorithm_size) != 0) {
        return "unsupported signature algorithm";
    }
    memcpy(signature.key_id, bytes + algorithm_size, key_id_size);
    memcpy(signature.signature, bytes + algorithm_size + key_id_size, signature_size);
    signature.comment = trusted;
    return nullptr;
}

}  // namespace base
