#include "minisign.h"

#include <algorithm>
#include <cstring>

#include <sodium.h>

namespace ad_mounter {

namespace {

constexpr int base64 = sodium_base64_VARIANT_ORIGINAL;

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

bool consume(std::string_view& text, std::string_view expected) {
    if (text.compare(0, expected.size(), expected) != 0) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

bool consume_line(std::string_view& text, std::string_view& line) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = {text.data(), end};
    text.remove_prefix(end + 1);
    return true;
}

// Decodes exactly `size` bytes. The decoder accepts several spellings of the same bytes, so
// they are encoded again and compared.
bool decode(std::string_view line, unsigned char* bytes, size_t size) {
    char encoded[sodium_base64_ENCODED_LEN(2 + key_id_size + signature_size, base64)];
    size_t decoded = 0;
    return sodium_base642bin(bytes, size, line.data(), line.size(), nullptr, &decoded, nullptr,
                             base64) == 0 &&
           decoded == size &&
           sodium_bin2base64(encoded, sizeof encoded, bytes, size, base64) == line;
}

bool is_known_untrusted_comment(std::string_view line) {
    for (const std::string_view known : untrusted_comments) {
        if (line == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool parse_public_key(std::string_view text, PublicKey& key) {
    std::string_view comment;
    if (!consume_line(text, comment) || !consume(comment, untrusted_prefix)) {
        return false;
    }
    const std::string_view line(text.data(), std::min(text.find_first_of("\r\n"), text.size()));
    unsigned char bytes[key_algorithm.size() + sizeof(PublicKey)];
    if (!decode(line, bytes, sizeof bytes) ||
        memcmp(bytes, key_algorithm.data(), key_algorithm.size()) != 0) {
        return false;
    }
    memcpy(key.id, bytes + key_algorithm.size(), sizeof key.id);
    memcpy(key.key, bytes + key_algorithm.size() + sizeof key.id, sizeof key.key);
    return true;
}

const char* parse_signature(std::string_view text, Signature& signature) {
    std::string_view untrusted;
    std::string_view encoded;
    std::string_view trusted;
    std::string_view encoded_comment_signature;
    unsigned char bytes[signature_algorithm.size() + key_id_size + signature_size];
    if (!consume_line(text, untrusted) || !consume_line(text, encoded) ||
        !consume_line(text, trusted) || !consume_line(text, encoded_comment_signature) ||
        !text.empty() || !is_known_untrusted_comment(untrusted) ||
        !consume(trusted, trusted_prefix) || !decode(encoded, bytes, sizeof bytes) ||
        !decode(encoded_comment_signature, signature.comment_signature, signature_size)) {
        return "malformed signature";
    }
    if (memcmp(bytes, signature_algorithm.data(), signature_algorithm.size()) != 0) {
        return "unsupported signature algorithm";
    }
    memcpy(signature.key_id, bytes + signature_algorithm.size(), key_id_size);
    memcpy(signature.signature, bytes + signature_algorithm.size() + key_id_size, signature_size);
    signature.comment = trusted;
    return nullptr;
}

}  // namespace ad_mounter
