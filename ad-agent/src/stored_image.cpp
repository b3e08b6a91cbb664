#include "stored_image.h"

#include "ADDigest.h"
#include "base/decimal_version.h"
#include "guard_list.h"
#include "image_download.h"
#include "part_file.h"
#include "regular_file.h"
#include "version.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

/** Copies bytes between descriptors. Returns false with errno set if it cannot. */
bool copy_bytes(int from, int to, std::uint64_t size) {
    while (size > 0) {
        ssize_t count = copy_file_range(from, nullptr, to, nullptr, size, 0);
        if (count < 0 && errno != EINTR) {
            count = sendfile(to, from, nullptr, size);
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            errno = EIO;  // truncated since its size was taken
            return false;
        }
        size -= static_cast<std::uint64_t>(count);
    }
    return true;
}

}  // namespace

Result<> copy_stored_image(const std::string& path, const DataDirectory& directory,
                           const DeviceState& state) {
    const auto stored = open_regular_file(AT_FDCWD, path, O_NOFOLLOW);
    if (!stored) {
        return Failure(stored.error());
    }
    struct stat status = {};
    if (fstat(stored->get(), &status) != 0) {
        return errno_failure("failed to open " + path);
    }
    const auto bad = find_bad_image(directory, state, ad_sha256_file(path.c_str()));
    if (bad) {
        return failure("stored image refused: " + reason_text(*bad));
    }
    remove_download(directory);
    const auto size = static_cast<std::uint64_t>(status.st_size);
    auto space = directory.require_space(size);
    if (!space) {
        return space;
    }
    auto part = PartFile::create(directory, image_name);
    if (!part) {
        return Failure(part.error());
    }
    if (!copy_bytes(stored->get(), part->fd(), size)) {
        return errno_failure("failed to copy " + path + " to " + directory.path_of(part->name()));
    }
    return part->commit();
}

std::string read_floor(const std::string& path) {
    auto text = read_regular_file(AT_FDCWD, path, O_NOFOLLOW, base::max_version_length + 1);
    if (text && !text->empty() && text->back() == '\n') {
        text->pop_back();
    }
    return text && base::is_decimal_version(*text) ? *text : no_version;
}

}  // namespace ad_agent
