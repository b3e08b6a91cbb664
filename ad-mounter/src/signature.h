/**
 * Verifies that an image comes from its maker, unchanged.
 */
#pragma once

#include "base/image_trailer.h"
#include "image.h"
#include "keys.h"
#include "outcome.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

/**
 * Verifies an image with the device's keys, see minisign(1): Ed25519 over the trusted comment,
 * and over the BLAKE2b-512 hash of everything before the trailer. In two steps, so that what the
 * image is for can be judged before all of it is read, which happens once, in constant memory.
 */
class ImageVerifier {
public:
    /** `fd`, not owned, is open for reading; `path` is for error messages. */
    ImageVerifier(int fd, const char* path) : fd_(fd), path_(path) {}
    ImageVerifier(const ImageVerifier&) = delete;
    ImageVerifier& operator=(const ImageVerifier&) = delete;

    /**
     * Validates the file as validate_image() does, refuses one of more than `limit` bytes, and
     * verifies the trusted comment.
     */
    Outcome verify_comment(const Keys& keys, uint64_t limit);

    /** Verifies the content; nobody must be able to write to the file meanwhile. */
    Outcome verify_content();

    /**
     * Copies the image to the empty file `to` and verifies what has been written. The original
     * may change meanwhile. `to_path` is for error messages.
     */
    Outcome copy_content(int to, const char* to_path);

    /** What the verified comment states; points into this object. */
    const base::TrustedComment& comment() const { return trailer_.comment; }

    uint64_t file_size() const { return file_size_; }
    FileSystem type() const { return type_; }

private:
    struct Copy;

    Outcome read_trailer(uint64_t limit);
    Outcome find_keys(const Keys& keys);
    Outcome read_content(const Copy* copy);
    Outcome check_content(const unsigned char* hash, size_t size) const;

    int fd_;
    const char* path_;
    FileSystem type_ = FileSystem::squashfs;
    uint64_t file_size_ = 0;
    unsigned char end_[base::max_trailer_size];
    size_t end_size_ = 0;
    base::Trailer trailer_;
    Keys signers_;  // those that have signed the comment
};

}  // namespace ad_mounter
