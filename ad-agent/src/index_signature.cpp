#include "index_signature.h"

#include "trusted_file.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include <sodium.h>

namespace ad_agent {
namespace {

constexpr char key_suffix[] = ".pub";
constexpr std::size_t max_keys = 16;
constexpr std::size_t max_key_size = 1024;
constexpr char comment_prefix[] = "# ";
constexpr char first_line[] = "# untrusted comment:";

/** Returns where the signature's lines begin, or none if there is no signature. */
std::optional<std::size_t> find_signature(const std::string& document) {
    if (document.compare(0, sizeof first_line - 1, first_line) == 0) {
        return 0;
    }
    const std::size_t newline = document.find(std::string("\n") + first_line);
    return newline == std::string::npos ? std::nullopt : std::optional<std::size_t>(newline + 1);
}

/** Removes the prefix of each line. Returns none if one lacks it. */
std::optional<std::string> uncomment(const std::string& lines) {
    std::string text;
    for (std::size_t start = 0; start < lines.size();) {
        if (lines.compare(start, sizeof comment_prefix - 1, comment_prefix) != 0) {
            return std::nullopt;
        }
        const std::size_t end = std::min(lines.find('\n', start), lines.size() - 1) + 1;
        start += sizeof comment_prefix - 1;
        text.append(lines, start, end - start);
        start = end;
    }
    return text;
}

bool is_signed_by(const base::PublicKey& key, const std::string& text,
                  const base::Signature& signature) {
    std::array<unsigned char, crypto_generichash_BYTES_MAX> hash = {};
    crypto_generichash(hash.data(), hash.size(),
                       reinterpret_cast<const unsigned char*>(text.data()), text.size(), nullptr,
                       0);
    std::vector<unsigned char> comment(signature.signature,
                                       signature.signature + base::signature_size);
    comment.insert(comment.end(), signature.comment.begin(), signature.comment.end());
    return crypto_sign_verify_detached(signature.signature, hash.data(), hash.size(), key.key) ==
               0 &&
           crypto_sign_verify_detached(signature.comment_signature, comment.data(), comment.size(),
                                       key.key) == 0;
}

}  // namespace

Result<IndexKeys> load_index_keys(const std::string& directory) {
    const auto texts = read_trusted_files(directory, key_suffix, max_keys, max_key_size);
    if (!texts) {
        return failure("refusing every index: " + texts.error().message);
    }
    IndexKeys keys;
    for (const std::string& text : *texts) {
        base::PublicKey key = {};
        if (!base::parse_public_key(text, key)) {
            return failure("refusing every index: a key in " + directory +
                           " is not a minisign public key");
        }
        keys.push_back(key);
    }
    return keys;
}

std::string key_id_text(const unsigned char (&id)[base::key_id_size]) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = base::key_id_size; i-- > 0;) {
        text += digits[id[i] >> 4];
        text += digits[id[i] & 0xf];
    }
    return text;
}

Result<SignedText> verify_index(const std::string& document, const IndexKeys& keys) {
    const auto start = find_signature(document);
    if (!start) {
        return failure("not signed");
    }
    const auto lines = uncomment(document.substr(*start));
    base::Signature signature;
    const char* const rejection =
        lines ? base::parse_signature(*lines, signature) : "malformed signature";
    if (rejection) {
        return failure(rejection);
    }
    const std::string key_id = key_id_text(signature.key_id);
    if (sodium_init() < 0) {
        return failure("failed to initialise libsodium");
    }
    std::string text = document.substr(0, *start);
    bool is_known = false;
    for (const base::PublicKey& key : keys) {
        if (memcmp(key.id, signature.key_id, sizeof key.id) != 0) {
            continue;
        }
        is_known = true;
        if (is_signed_by(key, text, signature)) {
            return SignedText{std::move(text), key_id};
        }
    }
    return failure(is_known ? "wrong signature" : "signed by unknown key " + key_id);
}

}  // namespace ad_agent
