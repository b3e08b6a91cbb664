#include "stored_image.h"

#include "ADDigest.h"
#include "image_download.h"

#include <cerrno>

#include <fcntl.h>
#include <glib.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

std::string errno_text(const std::string& step, const std::string& path) {
    const int number = errno;
    return "cannot " + step + " " + path + ": " + g_strerror(number);
}

bool copy_bytes(int from, int to, std::uint64_t size) {
    while (size > 0) {
        ssize_t count = copy_file_range(from, nullptr, to, nullptr, size, 0);
        if (count < 0 && errno != EINTR) count = sendfile(to, from, nullptr, size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) {
            errno = EIO;  // it has become shorter
            return false;
        }
        size -= static_cast<std::uint64_t>(count);
    }
    return true;
}

}  // namespace

bool copy_stored_image(const std::string& path, const DataFolder& folder, const DeviceState& state,
                       std::string& error) {
    const UniqueFd stored(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!stored || fstat(stored.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        error = errno_text("open", path);
        return false;
    }
    if (state.is_bad(ad_sha256_file(path.c_str()))) {
        error = "the stored image is refused: its library failed to load here";
        return false;
    }
    remove_download(folder);
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > folder.free_bytes()) {
        error = "no room to offer the stored image again: " + std::to_string(size) +
                " bytes are needed and " + std::to_string(folder.free_bytes()) + " free";
        return false;
    }
    auto part = PartFile::create(folder, IMAGE_NAME, error);
    if (!part) return false;
    if (!copy_bytes(stored.get(), part->fd(), size)) {
        error = errno_text("copy " + path + " to", folder.path_of(part->name()));
        return false;
    }
    return part->commit(error);
}

}  // namespace ad_agent
