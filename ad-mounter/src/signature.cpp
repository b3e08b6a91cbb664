#include "signature.h"

#include "base/file_io.h"
#include "base/image_trailer.h"
#include "keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sodium.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr size_t piece_size = size_t{128} << 10;

Outcome reject(const char* path, const char* reason) {
    return Outcome::refused(EX_DATAERR, "verify", path, reason);
}

// Reads exactly `size` bytes at `offset`.
Outcome read_part(int fd, const char* path, unsigned char* bytes, size_t size, uint64_t offset) {
    const ssize_t got = base::pread_full(fd, bytes, size, static_cast<off_t>(offset));
    if (got < 0) {
        return Outcome::failed("read", path, errno);
    }
    return static_cast<size_t>(got) == size ? Outcome() : reject(path, "truncated image");
}

struct Hash {
    unsigned char bytes[crypto_generichash_BYTES_MAX];
    bool valid = false;
};

// Hashes the file's first `size` bytes.
Outcome hash_file(int fd, const char* path, uint64_t size, Hash& hash) {
    alignas(4096) static unsigned char piece[piece_size];
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, sizeof hash.bytes);
    for (uint64_t done = 0; done < size;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(sizeof piece, size - done));
        TRY(read_part(fd, path, piece, wanted, done));
        crypto_generichash_update(&state, piece, wanted);
        done += wanted;
    }
    crypto_generichash_final(&state, hash.bytes, sizeof hash.bytes);
    hash.valid = true;
    return {};
}

bool comment_is_signed(const base::Signature& signature, const base::PublicKey& key) {
    unsigned char message[base::signature_size + base::max_trailer_size];
    memcpy(message, signature.signature, base::signature_size);
    memcpy(message + base::signature_size, signature.comment.data(), signature.comment.size());
    return crypto_sign_verify_detached(signature.comment_signature, message,
                                       base::signature_size + signature.comment.size(),
                                       key.key) == 0;
}

// Key IDs are not unique, so every key with the right one is tried.
Outcome check_signature(int fd, const char* path, uint64_t size, const base::Signature& signature) {
    if (sodium_init() < 0) {
        return Outcome::refused(EX_SOFTWARE, "verify", path, "cannot initialise libsodium");
    }
    Keys keys;
    TRY(load_keys(keys));
    bool known = false;
    Hash hash;
    for (size_t i = 0; i < keys.count; ++i) {
        const base::PublicKey& key = keys.keys[i];
        if (memcmp(key.id, signature.key_id, sizeof key.id) != 0) {
            continue;
        }
        known = true;
        // The comment first: reading the whole file is worth it only if that much is signed.
        if (!comment_is_signed(signature, key)) {
            continue;
        }
        if (!hash.valid) {
            TRY(hash_file(fd, path, size, hash));
        }
        if (crypto_sign_verify_detached(signature.signature, hash.bytes, sizeof hash.bytes,
                                        key.key) == 0) {
            return {};
        }
    }
    return reject(path, known ? "changed after it was signed" : "not signed with a trusted key");
}

}  // namespace

Outcome verify_image(int fd, const char* path, VerifiedImage& image) {
    TRY(validate_image(fd, path, image.type));
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    const auto file_size = static_cast<uint64_t>(status.st_size);
    unsigned char end[base::max_trailer_size];
    const size_t length = static_cast<size_t>(std::min<uint64_t>(sizeof end, file_size));
    TRY(read_part(fd, path, end, length, file_size - length));
    const base::Trailer trailer = base::parse_trailer(end, length, file_size);
    if (trailer.rejection != nullptr) {
        return reject(path, trailer.rejection);
    }
    // The file system must not reach into what is not signed.
    const uint64_t size = file_size - trailer.length;
    TRY(validate_image(fd, path, size, image.type));
    TRY(check_signature(fd, path, size, trailer.signature));
    copy_version(trailer.comment.version, image.version);
    return {};
}

}  // namespace ad_mounter
