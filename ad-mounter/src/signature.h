/**
 * Verifies that an image comes from its maker, unchanged.
 */
#pragma once

#include "image.h"
#include "outcome.h"
#include "version_text.h"

namespace ad_mounter {

struct VerifiedImage {
    FileSystem type = FileSystem::squashfs;
    char version[version_size] = "";  ///< as signed; still to be compared with the manifest's
};

/**
 * Validates the open file `fd` as validate_image() does and verifies the signature in its
 * trailer with the device's keys, see minisign(1): Ed25519 over the BLAKE2b-512 hash of
 * everything before the trailer, and over the trusted comment. Reads the file once, in
 * constant memory; nobody must be able to write to it meanwhile. `path` is for error messages.
 */
Outcome verify_image(int fd, const char* path, VerifiedImage& image);

}  // namespace ad_mounter
