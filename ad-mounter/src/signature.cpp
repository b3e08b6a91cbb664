#include "signature.h"

#include "base/file_io.h"
#include "file_copy.h"

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

bool comment_is_signed(const base::Signature& signature, const base::PublicKey& key) {
    unsigned char message[base::signature_size + base::max_trailer_size];
    memcpy(message, signature.signature, base::signature_size);
    memcpy(message + base::signature_size, signature.comment.data(), signature.comment.size());
    return crypto_sign_verify_detached(signature.comment_signature, message,
                                       base::signature_size + signature.comment.size(),
                                       key.key) == 0;
}

}  // namespace

struct ImageVerifier::Copy {
    int fd;
    const char* path;

    // Appends a piece of the image that starts at `offset`.
    Outcome append(const unsigned char* bytes, size_t size, uint64_t offset) const {
        if (!base::write_full(fd, bytes, size)) {
            return Outcome::failed("copy to", path, errno);
        }
        start_write_back(fd, offset, size);
        return {};
    }
};

Outcome ImageVerifier::read_trailer(uint64_t limit) {
    TRY(validate_image(fd_, path_, type_));
    struct stat status;
    if (fstat(fd_, &status) != 0) {
        return Outcome::failed("stat", path_, errno);
    }
    file_size_ = static_cast<uint64_t>(status.st_size);
    if (file_size_ > limit) {
        return reject(path_, "larger than an image may be");
    }
    end_size_ = static_cast<size_t>(std::min<uint64_t>(sizeof end_, file_size_));
    TRY(read_part(fd_, path_, end_, end_size_, file_size_ - end_size_));
    trailer_ = base::parse_trailer(end_, end_size_, file_size_);
    if (trailer_.rejection != nullptr) {
        return reject(path_, trailer_.rejection);
    }
    // The file system must not reach into what is not signed.
    return validate_image(fd_, path_, file_size_ - trailer_.length, type_);
}

// Key IDs are not unique, so every key with the right one is tried.
Outcome ImageVerifier::find_keys(const Keys& keys) {
    bool known = false;
    signers_.count = 0;
    for (size_t i = 0; i < keys.count; ++i) {
        const base::PublicKey& key = keys.keys[i];
        if (memcmp(key.id, trailer_.signature.key_id, sizeof key.id) != 0) {
            continue;
        }
        known = true;
        if (comment_is_signed(trailer_.signature, key)) {
            signers_.keys[signers_.count++] = key;
        }
    }
    if (signers_.count > 0) {
        return {};
    }
    return reject(path_, known ? "changed after it was signed" : "not signed with a trusted key");
}

Outcome ImageVerifier::verify_comment(const Keys& keys, uint64_t limit) {
    if (sodium_init() < 0) {
        return Outcome::refused(EX_SOFTWARE, "verify", path_, "cannot initialise libsodium");
    }
    TRY(read_trailer(limit));
    return find_keys(keys);
}

Outcome ImageVerifier::check_content(const unsigned char* hash, size_t size) const {
    for (size_t i = 0; i < signers_.count; ++i) {
        if (crypto_sign_verify_detached(trailer_.signature.signature, hash, size,
                                        signers_.keys[i].key) == 0) {
            return {};
        }
    }
    return reject(path_, "changed after it was signed");
}

// Reads everything before the trailer, in order to hash it and to copy it, if `copy` is not null.
Outcome ImageVerifier::read_content(const Copy* copy) {
    alignas(4096) static unsigned char piece[piece_size];
    crypto_generichash_state state;
    unsigned char hash[crypto_generichash_BYTES_MAX];
    crypto_generichash_init(&state, nullptr, 0, sizeof hash);
    const uint64_t size = file_size_ - trailer_.length;
    for (uint64_t done = 0; done < size;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(sizeof piece, size - done));
        TRY(read_part(fd_, path_, piece, wanted, done));
        if (copy != nullptr) {
            TRY(copy->append(piece, wanted, done));
        }
        crypto_generichash_update(&state, piece, wanted);
        done += wanted;
    }
    crypto_generichash_final(&state, hash, sizeof hash);
    return check_content(hash, sizeof hash);
}

Outcome ImageVerifier::verify_content() { return read_content(nullptr); }

Outcome ImageVerifier::copy_content(int to, const char* to_path) {
    const Copy copy = {to, to_path};
    TRY(read_content(&copy));
    // The trailer that has been verified, not what the file may hold by now.
    const uint64_t size = file_size_ - trailer_.length;
    TRY(copy.append(end_ + end_size_ - trailer_.length, trailer_.length, size));
    return validate_image(to, path_, size, type_);
}

}  // namespace ad_mounter
