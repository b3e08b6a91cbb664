/**
 * The public keys that images are verified with.
 */
#pragma once

#include "base/minisign.h"
#include "outcome.h"

#include <cstddef>

namespace ad_mounter {

constexpr size_t max_keys = 16;

struct Keys {
    base::PublicKey keys[max_keys];
    size_t count = 0;
};

/**
 * Reads every *.pub file in the key directory. Refuses when there is none, when one is not a
 * key, and when users other than root could write to one of them, to the directory or to a
 * directory above it.
 */
Outcome load_keys(Keys& keys);

}  // namespace ad_mounter
