#include "data_directory.h"

#include "regular_file.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace ad_agent {

Result<DataDirectory> DataDirectory::open(const std::string& path) {
    base::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        return errno_failure("failed to open data directory " + path);
    }
    return DataDirectory(path, std::move(fd));
}

Result<DataDirectory> DataDirectory::create(const std::string& path) {
    if (g_mkdir_with_parents(path.c_str(), 0755) != 0) {
        return errno_failure("failed to create data directory " + path);
    }
    return open(path);
}

std::optional<std::uint64_t> DataDirectory::size_of(const std::string& name) const {
    struct stat status = {};
    if (fstatat(fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

std::optional<std::string> DataDirectory::read(const std::string& name,
                                               std::uint64_t max_bytes) const {
    auto text = read_regular_file(fd(), name, O_NOFOLLOW, max_bytes);
    return text ? std::optional<std::string>(std::move(*text)) : std::nullopt;
}

void DataDirectory::remove(const std::string& name) const { unlinkat(fd(), name.c_str(), 0); }

Result<> DataDirectory::require_space(std::uint64_t bytes) const {
    struct statvfs status = {};
    if (fstatvfs(fd(), &status) != 0) {
        return errno_failure("failed to determine the free space of " + path_);
    }
    const std::uint64_t available = static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
    if (bytes > available) {
        return failure("not enough space in " + path_ + ": " + std::to_string(bytes) +
                       " bytes needed, " + std::to_string(available) + " available");
    }
    return {};
}

}  // namespace ad_agent
