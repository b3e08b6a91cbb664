#include "image.h"

#include "base/file_io.h"
#include "base/little_endian.h"

#include <cerrno>

#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "validate";

constexpr uint64_t squashfs_magic = 0x73717368;
constexpr size_t squashfs_superblock = 96;

constexpr uint64_t erofs_magic = 0xE0F5E1E2;
constexpr size_t erofs_offset = 1024;
constexpr size_t erofs_superblock = 128;
constexpr uint64_t erofs_incompatible_48bit = 0x80;

Recognition rejected(const char* reason) { return {reason, FileSystem::squashfs}; }

Recognition recognise_squashfs(const unsigned char* superblock, uint64_t file_size) {
    const uint64_t block_size = base::little_endian(superblock + 12, 4);
    const uint64_t block_log = base::little_endian(superblock + 22, 2);
    const uint64_t version = base::little_endian(superblock + 28, 2);
    const uint64_t bytes_used = base::little_endian(superblock + 40, 8);
    if (version != 4) {
        return rejected("unsupported squashfs version");
    }
    if (block_log < 12 || block_log > 20 || block_size != uint64_t{1} << block_log) {
        return rejected("invalid squashfs superblock");
    }
    if (bytes_used < squashfs_superblock || bytes_used > file_size) {
        return rejected("truncated image");
    }
    return {nullptr, FileSystem::squashfs};
}

Recognition recognise_erofs(const unsigned char* superblock, uint64_t file_size) {
    const uint64_t block_log = base::little_endian(superblock + 12, 1);
    const uint64_t incompatible = base::little_endian(superblock + 80, 4);
    uint64_t blocks = base::little_endian(superblock + 36, 4);
    if (block_log < 9 || block_log > 16) {
        return rejected("invalid erofs superblock");
    }
    if ((incompatible & erofs_incompatible_48bit) != 0) {
        blocks |= base::little_endian(superblock + 14, 2) << 32;
    }
    if (blocks == 0 || blocks > file_size >> block_log) {
        return rejected("truncated image");
    }
    return {nullptr, FileSystem::erofs};
}

}  // namespace

Recognition recognise_image(const unsigned char* header, size_t length, uint64_t file_size) {
    if (length >= squashfs_superblock && base::little_endian(header, 4) == squashfs_magic) {
        return recognise_squashfs(header, file_size);
    }
    if (length >= erofs_offset + erofs_superblock &&
        base::little_endian(header + erofs_offset, 4) == erofs_magic) {
        return recognise_erofs(header + erofs_offset, file_size);
    }
    return rejected("not a squashfs or erofs image");
}

const char* file_system_name(FileSystem type) {
    return type == FileSystem::squashfs ? "squashfs" : "erofs";
}

Outcome validate_image(int fd, const char* path, uint64_t size, FileSystem& type) {
    unsigned char header[image_header_size];
    const ssize_t length = base::pread_full(fd, header, sizeof header, 0);
    if (length < 0) {
        return Outcome::failed("read", path, errno);
    }
    const Recognition recognition = recognise_image(header, static_cast<size_t>(length), size);
    if (recognition.rejection != nullptr) {
        return Outcome::refused(EX_DATAERR, step, path, recognition.rejection);
    }
    type = recognition.type;
    return {};
}

Outcome validate_image(int fd, const char* path, FileSystem& type) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return Outcome::failed("stat", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Outcome::refused(EX_DATAERR, step, path, "not a regular file");
    }
    return validate_image(fd, path, static_cast<uint64_t>(status.st_size), type);
}

}  // namespace ad_mounter
