/**
 * Recognises the file systems that an image may hold.
 */
#pragma once

#include "outcome.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

enum class FileSystem : unsigned char { squashfs, erofs };

/** What an image's superblock says. */
struct Recognition {
    const char* rejection = nullptr;  ///< why the image is not accepted; null when it is
    FileSystem type = FileSystem::squashfs;
};

/** How many of an image's first bytes recognise_image() reads. */
constexpr size_t image_header_size = 1024 + 128;

/**
 * Checks the first `length` bytes of a file of `file_size` bytes: magic number, version, and
 * that the file system is not longer than the file.
 */
Recognition recognise_image(const unsigned char* header, size_t length, uint64_t file_size);

/** The name of a file system for mount(2). */
const char* file_system_name(FileSystem type);

/**
 * Checks that the open file `fd` is a regular file holding a squashfs or erofs file system.
 * Its descriptor, not its name, is what gets mounted or stored later. `path` is for error
 * messages.
 */
Outcome validate_image(int fd, const char* path, FileSystem& type);

/** As above, for a file system within the first `size` bytes of any file. */
Outcome validate_image(int fd, const char* path, uint64_t size, FileSystem& type);

}  // namespace ad_mounter
