#include "image.h"

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "checking the image";

// All numbers on the disk are little-endian.
uint64_t number_at(const unsigned char* bytes, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t i = width; i > 0; --i) {
        value = value << 8 | bytes[offset + i - 1];
    }
    return value;
}

constexpr uint64_t squashfs_magic = 0x73717368;
constexpr size_t squashfs_superblock = 96;

constexpr uint64_t erofs_magic = 0xE0F5E1E2;
constexpr size_t erofs_offset = 1024;
constexpr size_t erofs_superblock = 128;
constexpr uint64_t erofs_incompatible_48bit = 0x80;

Recognition refused(const char* why) {
    Recognition recognition;
    recognition.refusal = why;
    return recognition;
}

Recognition recognise_squashfs(const unsigned char* header, uint64_t file_size) {
    const uint64_t block_size = number_at(header, 12, 4);
    const uint64_t block_log = number_at(header, 22, 2);
    const uint64_t major = number_at(header, 28, 2);
    const uint64_t bytes_used = number_at(header, 40, 8);
    if (major != 4) {
        return refused("a squashfs of another version");
    }
    if (block_log < 12 || block_log > 20 || block_size != uint64_t{1} << block_log) {
        return refused("a squashfs with a broken header");
    }
    if (bytes_used < squashfs_superblock || bytes_used > file_size) {
        return refused("the image is cut short");
    }
    Recognition recognition;
    recognition.type = FileSystem::squashfs;
    return recognition;
}

Recognition recognise_erofs(const unsigned char* superblock, uint64_t file_size) {
    const uint64_t block_log = number_at(superblock, 12, 1);
    const uint64_t incompatible = number_at(superblock, 80, 4);
    uint64_t blocks = number_at(superblock, 36, 4);
    if (block_log < 9 || block_log > 16) {
        return refused("an erofs with a broken header");
    }
    if ((incompatible & erofs_incompatible_48bit) != 0) {
        blocks |= number_at(superblock, 14, 2) << 32;
    }
    if (blocks == 0 || blocks > file_size >> block_log) {
        return refused("the image is cut short");
    }
    Recognition recognition;
    recognition.type = FileSystem::erofs;
    return recognition;
}

}  // namespace

Recognition recognise_image(const unsigned char* header, size_t length, uint64_t file_size) {
    if (length >= squashfs_superblock && number_at(header, 0, 4) == squashfs_magic) {
        return recognise_squashfs(header, file_size);
    }
    if (length >= erofs_offset + erofs_superblock &&
        number_at(header, erofs_offset, 4) == erofs_magic) {
        return recognise_erofs(header + erofs_offset, file_size);
    }
    return refused("neither squashfs nor erofs");
}

const char* file_system_name(FileSystem type) {
    return type == FileSystem::squashfs ? "squashfs" : "erofs";
}

Outcome judge_image(int fd, const char* path, uint64_t size, FileSystem& type) {
    unsigned char header[image_header_size];
    const ssize_t length = pread(fd, header, sizeof header, 0);
    if (length < 0) {
        return Outcome::failed(step, path, errno);
    }
    const Recognition recognition = recognise_image(header, static_cast<size_t>(length), size);
    if (recognition.refusal != nullptr) {
        return Outcome::refused(EX_DATAERR, step, path, recognition.refusal);
    }
    type = recognition.type;
    return {};
}

Outcome judge_image(int fd, const char* path, FileSystem& type) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return Outcome::failed(step, path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Outcome::refused(EX_DATAERR, step, path, "not a regular file");
    }
    return judge_image(fd, path, static_cast<uint64_t>(status.st_size), type);
}

}  // namespace ad_mounter
