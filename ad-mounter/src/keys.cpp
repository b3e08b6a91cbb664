#include "keys.h"

#include "base/unique_fd.h"
#include "directory_reader.h"
#include "operations.h"
#include "trusted_path.h"

#include <cstring>

namespace ad_mounter {

namespace {

constexpr const char* no_key = "no public key installed";
constexpr size_t max_key_file_size = 1024;

Outcome reject_keys(const char* reason) {
    return Outcome::refused(EX_DATAERR, "read keys in", key_directory, reason);
}

// Opens the key directory, provided that only root can put another one in its place.
Outcome open_key_directory(base::UniqueFd& directory) {
    const Outcome opened =
        open_trusted_directory(key_directory, key_directory, directory, EX_DATAERR);
    return opened.status() == EX_NOINPUT ? reject_keys(no_key) : opened;
}

Outcome load_key(int directory, const char* name, base::PublicKey& key) {
    char text[max_key_file_size];
    const TrustedText read = read_trusted_file(directory, name, text, sizeof text);
    const char* rejection = read.rejection;
    if (rejection == nullptr && read.error != 0) {
        return Outcome::entry_failed("read key", directory, name, read.error);
    }
    if (rejection == nullptr && !base::parse_public_key({text, read.length}, key)) {
        rejection = "not a minisign public key";
    }
    return rejection == nullptr
               ? Outcome()
               : Outcome::entry_refused(EX_DATAERR, "read key", directory, name, rejection);
}

bool is_key_name(const char* name) {
    const char* suffix = strrchr(name, '.');
    return suffix != nullptr && suffix != name && strcmp(suffix, ".pub") == 0;
}

}  // namespace

Outcome load_keys(Keys& keys) {
    base::UniqueFd directory;
    TRY(open_key_directory(directory));
    DirectoryReader reader(directory.get());
    DirectoryEntry entry;
    keys.count = 0;
    while (reader.next(entry)) {
        if (!is_key_name(entry.name)) {
            continue;
        }
        if (keys.count == max_keys) {
            return reject_keys("too many keys");
        }
        TRY(load_key(directory.get(), entry.name, keys.keys[keys.count++]));
    }
    if (reader.error() != 0) {
        return Outcome::failed("read keys in", key_directory, reader.error());
    }
    return keys.count > 0 ? Outcome() : reject_keys(no_key);
}

}  // namespace ad_mounter
