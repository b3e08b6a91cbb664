// Decides whether a file is an image that may be mounted.
#ifndef AD_MOUNTER_IMAGE_H
#define AD_MOUNTER_IMAGE_H

#include "messages.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

enum class FileSystem : unsigned char { squashfs, erofs };

/** What an image's first bytes say. */
struct Recognition {
    const char* refusal = nullptr;  ///< why it is none of ours; null when it is
    FileSystem type = FileSystem::squashfs;
};

/** As many of an image's first bytes as recognise_image() looks at. */
constexpr size_t image_header_size = 1024 + 128;

/**
 * Looks at the first `length` bytes of a file of `file_size` bytes: the magic
 * number, the version, and that the file system is not longer than the file.
 */
Recognition recognise_image(const unsigned char* header, size_t length, uint64_t file_size);

/** The name of a file system as mount(2) takes it. */
const char* file_system_name(FileSystem type);

/**
 * Judges the open file `fd`, the very descriptor that is mounted or moved on:
 * a regular file that holds squashfs or erofs. `path` is for the failure's line.
 */
Outcome judge_image(int fd, const char* path, FileSystem& type);

/** The same when only the first `size` bytes of the file may hold the file system. */
Outcome judge_image(int fd, const char* path, uint64_t size, FileSystem& type);

}  // namespace ad_mounter

#endif
