/**
 * The signature of an index: the four lines of a minisign(1) signature file, each behind
 * "# ", at the end of the file. Everything before them is what is signed.
 */
#pragma once

#include "base/minisign.h"
#include "result.h"

#include <string>
#include <vector>

namespace ad_agent {

using IndexKeys = std::vector<base::PublicKey>;

/**
 * Reads the keys "*.pub" of a directory that comes with the firmware. None if there is no
 * such directory; fails if a key is malformed or a user other than root could change one.
 */
Result<IndexKeys> load_index_keys(const std::string& directory);

/** Returns a key's ID as minisign prints it: 16 hexadecimal digits. */
std::string key_id_text(const unsigned char (&id)[base::key_id_size]);

struct SignedText {
    /** What is signed, without the signature. */
    std::string text;
    /** ID of the key that it was verified with. */
    std::string key_id;
};

/** Verifies that one of `keys` signed `document`. */
Result<SignedText> verify_index(const std::string& document, const IndexKeys& keys);

}  // namespace ad_agent
