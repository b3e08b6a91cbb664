/**
 * The text formats of minisign(1): public keys and signatures.
 */
#pragma once

#include <cstddef>
#include <string_view>

namespace ad_mounter {

constexpr size_t key_id_size = 8;
constexpr size_t signature_size = 64;

struct PublicKey {
    unsigned char id[key_id_size];
    unsigned char key[32];  ///< Ed25519
};

/** Parses a public key file. Returns false when it is not one. */
bool parse_public_key(std::string_view text, PublicKey& key);

/** The contents of a signature file; nothing of it is verified. */
struct Signature {
    unsigned char key_id[key_id_size] = {};
    unsigned char signature[signature_size] = {};          ///< of the BLAKE2b-512 hash of the file
    unsigned char comment_signature[signature_size] = {};  ///< of `signature` and the comment
    std::string_view comment;  ///< the trusted comment; points into the parsed text
};

/**
 * Parses a signature file. Each signature has exactly one spelling: a text that differs from
 * it in any bit is rejected, even where minisign would accept it. Returns null, or why the
 * text is rejected.
 */
const char* parse_signature(std::string_view text, Signature& signature);

}  // namespace ad_mounter
