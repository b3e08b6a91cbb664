#include "signature.h"

#include "keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "verifying the signature";
constexpr size_t piece_size = size_t{128} << 10;

Outcome refuse(const char* path, const char* reason) {
    return Outcome::refused(EX_DATAERR, step, path, reason);
}

// 0 or an errno; ENODATA when the file ends early.
int read_whole(int fd, unsigned char* bytes, size_t size, uint64_t offset) {
    while (size > 0) {
        const ssize_t got = pread(fd, bytes, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got < 0 ? errno : ENODATA;
        }
        bytes += got;
        offset += static_cast<uint64_t>(got);
        size -= static_cast<size_t>(got);
    }
    return 0;
}

struct Hash {
    unsigned char bytes[crypto_generichash_BYTES_MAX];
};

// Of the file's first `size` bytes. 0 or an errno.
int hash_file(int fd, uint64_t size, Hash& hash) {
    alignas(4096) static unsigned char piece[piece_size];
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, sizeof hash.bytes);
    for (uint64_t done = 0; done < size;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(sizeof piece, size - done));
        const int error = read_whole(fd, piece, wanted, done);
        if (error != 0) {
            return error;
        }
        crypto_generichash_update(&state, piece, wanted);
        done += wanted;
    }
    crypto_generichash_final(&state, hash.bytes, sizeof hash.bytes);
    return 0;
}

bool comment_is_signed(const Trailer& trailer, const PublicKey& key) {
    unsigned char message[signature_size + longest_trailer];
    memcpy(message, trailer.signature, signature_size);
    memcpy(message + signature_size, trailer.comment, trailer.comment_length);
    return crypto_sign_verify_detached(trailer.comment_signature, message,
                                       signature_size + trailer.comment_length, key.key) == 0;
}

Outcome check_signatures(int fd, const char* path, uint64_t size, const Trailer& trailer) {
    if (sodium_init() < 0) {
        return Outcome::refused(EX_SOFTWARE, step, path, "the cryptography does not start");
    }
    Keys keys;
    const Outcome loaded = load_keys(keys);
    if (!loaded.ok()) {
        return loaded;
    }
    bool known = false;
    Hash hash;
    bool hashed = false;
    for (size_t i = 0; i < keys.count; ++i) {
        const PublicKey& key = keys.keys[i];
        if (memcmp(key.id, trailer.key_id, sizeof key.id) != 0) {
            continue;
        }
        known = true;
        // Small, so it goes first: the rest is only read for an image with a chance.
        if (!comment_is_signed(trailer, key)) {
            continue;
        }
        const int error = hashed ? 0 : hash_file(fd, size, hash);
        if (error != 0) {
            return error == ENODATA ? refuse(path, "the image is cut short")
                                    : Outcome::failed(step, path, error);
        }
        hashed = true;
        if (crypto_sign_verify_detached(trailer.signature, hash.bytes, sizeof hash.bytes,
                                        key.key) == 0) {
            return {};
        }
    }
    return refuse(path, known ? "it was changed after it was signed"
                              : "it is not signed with a key of this device");
}

}  // namespace

Outcome verify_image(int fd, const char* path, VerifiedImage& image) {
    struct stat status;
    Outcome outcome = judge_image(fd, path, image.type);
    if (!outcome.ok()) {
        return outcome;
    }
    if (fstat(fd, &status) != 0) {
        return Outcome::failed(step, path, errno);
    }
    const auto file_size = static_cast<uint64_t>(status.st_size);
    unsigned char end[longest_trailer];
    const size_t length = static_cast<size_t>(std::min<uint64_t>(sizeof end, file_size));
    const int error = read_whole(fd, end, length, file_size - length);
    if (error != 0) {
        return error == ENODATA ? refuse(path, "the image is cut short")
                                : Outcome::failed(step, path, error);
    }
    const Trailer trailer = parse_trailer(end, length, file_size);
    if (trailer.refusal != nullptr) {
        return refuse(path, trailer.refusal);
    }
    // Nothing behind what is signed may be taken for a part of the file system.
    const uint64_t size = file_size - trailer.length;
    outcome = judge_image(fd, path, size, image.type);
    if (outcome.ok()) {
        outcome = check_signatures(fd, path, size, trailer);
    }
    memcpy(image.version, trailer.version, sizeof image.version);
    return outcome;
}

}  // namespace ad_mounter
