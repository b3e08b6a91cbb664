#include "regular_file.h"

#include "base/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_agent {

Result<base::UniqueFd> open_regular_file(int directory, const std::string& path, int flags) {
    base::UniqueFd file(openat(directory, path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | flags));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
        return errno_failure("failed to open " + path);
    }
    if (!S_ISREG(status.st_mode)) {
        return failure(path + " exists but is not a regular file");
    }
    return file;
}

Result<std::string> read_regular_file(int directory, const std::string& path, int flags,
                                      std::uint64_t max_bytes) {
    const auto file = open_regular_file(directory, path, flags);
    if (!file) {
        return Failure(file.error());
    }
    struct stat status = {};
    if (fstat(file->get(), &status) != 0) {
        return errno_failure("failed to read " + path);
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > max_bytes) {
        return failure(path + " is larger than " + std::to_string(max_bytes) + " bytes");
    }
    std::string text(size, '\0');
    const ssize_t length = base::read_full(file->get(), text.data(), text.size());
    if (length < 0) {
        return errno_failure("failed to read " + path);
    }
    text.resize(static_cast<std::size_t>(length));
    return text;
}

}  // namespace ad_agent
