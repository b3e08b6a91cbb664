// Verifies that an image is its maker's.
#ifndef AD_MOUNTER_SIGNATURE_H
#define AD_MOUNTER_SIGNATURE_H

#include "image.h"
#include "messages.h"
#include "trailer.h"

namespace ad_mounter {

/** What a verified image is. */
struct VerifiedImage {
    FileSystem type = FileSystem::squashfs;
    char version[version_size] = "";  ///< that was signed; to be compared with the manifest's
};

/**
 * Judges the open file `fd` as judge_image() does, and verifies the signature
 * behind its file system with the device's keys (minisign(1)): Ed25519 over the
 * BLAKE2b-512 hash of everything before the trailer, and over the trusted
 * comment. The file is read once, in constant memory; nobody may be able to
 * write to it. `path` is for the failure's line.
 */
Outcome verify_image(int fd, const char* path, VerifiedImage& image);

}  // namespace ad_mounter

#endif
