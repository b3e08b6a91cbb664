// The public keys that images are trusted by.
#ifndef AD_MOUNTER_KEYS_H
#define AD_MOUNTER_KEYS_H

#include "messages.h"
#include "trailer.h"

#include <cstddef>

namespace ad_mounter {

struct PublicKey {
    unsigned char id[key_id_size];
    unsigned char key[32];  ///< Ed25519
};

/** More than a change of keys ever needs. */
constexpr size_t most_keys = 16;

struct Keys {
    PublicKey keys[most_keys];
    size_t count = 0;
};

/** Takes the text of a minisign public key file apart. False when it is none. */
bool parse_public_key(const char* text, size_t length, PublicKey& key);

/**
 * Reads all files *.pub in the directory of keys. There must be one at least,
 * and nobody but root may be able to write to any of them, to the directory or
 * to those above it: else the image is refused.
 */
Outcome load_keys(Keys& keys);

}  // namespace ad_mounter

#endif
