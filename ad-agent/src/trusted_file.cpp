#include "trusted_file.h"

#include "base/file_io.h"
#include "base/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

/** A descriptor, or none if there is no such file. */
using OptionalFd = std::optional<base::UniqueFd>;

/** Opens an entry of a directory. `path` is its full name, for the error. */
Result<OptionalFd> open_entry(int directory, const std::string& name, const std::string& path,
                              int flags) {
    base::UniqueFd fd(openat(directory, name.c_str(), O_NOFOLLOW | O_CLOEXEC | flags));
    if (!fd && errno == ENOENT) {
        return OptionalFd();
    }
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return errno_failure("failed to open " + path);
    }
    const bool is_directory = (flags & O_DIRECTORY) != 0;
    // Nobody but the owner of a file can replace it in a sticky directory.
    const bool is_sticky = is_directory && (status.st_mode & S_ISVTX) != 0;
    const bool others_may_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !is_sticky;
    if (status.st_uid != 0 || others_may_write) {
        return failure(path + " is writable by users other than root");
    }
    if (!is_directory && !S_ISREG(status.st_mode)) {
        return failure(path + " is not a regular file");
    }
    return OptionalFd(std::move(fd));
}

/** Opens the directory of an absolute path, component by component. */
Result<OptionalFd> open_directory(const std::string& path) {
    constexpr int flags = O_RDONLY | O_DIRECTORY;
    auto directory = open_entry(AT_FDCWD, "/", "/", flags);
    for (std::size_t start = 1; directory && *directory && start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start) {
            directory = open_entry((*directory)->get(), path.substr(start, end - start),
                                   path.substr(0, end), flags);
        }
        start = end + 1;
    }
    return directory;
}

Result<std::optional<std::string>> read_entry(int directory, const std::string& name,
                                              const std::string& path, std::uint64_t max_bytes) {
    const auto file = open_entry(directory, name, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file) {
        return Failure(file.error());
    }
    if (!*file) {
        return std::optional<std::string>();
    }
    std::string text(max_bytes + 1, '\0');
    const ssize_t length = base::read_full((*file)->get(), text.data(), text.size());
    if (length < 0) {
        return errno_failure("failed to read " + path);
    }
    if (static_cast<std::uint64_t>(length) > max_bytes) {
        return failure(path + " is larger than " + std::to_string(max_bytes) + " bytes");
    }
    text.resize(static_cast<std::size_t>(length));
    return text;
}

/** Lists the names in a directory that have a suffix and more than that. */
Result<std::vector<std::string>> list_names(base::UniqueFd directory, const std::string& path,
                                            const std::string& suffix) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(directory.get()), closedir);
    if (!entries) {
        return errno_failure("failed to read " + path);
    }
    [[maybe_unused]] const int owned_by_entries = directory.release();
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name.size() > suffix.size() && g_str_has_suffix(name.c_str(), suffix.c_str())) {
            names.push_back(name);
        }
    }
    if (errno != 0) {
        return errno_failure("failed to read " + path);
    }
    return names;
}

}  // namespace

Result<std::optional<std::string>> read_trusted_file(const std::string& path,
                                                     std::uint64_t max_bytes) {
    const std::size_t slash = path.rfind('/');
    const auto directory = open_directory(path.substr(0, slash));
    if (!directory) {
        return Failure(directory.error());
    }
    if (!*directory) {
        return std::optional<std::string>();
    }
    return read_entry((*directory)->get(), path.substr(slash + 1), path, max_bytes);
}

Result<std::vector<std::string>> read_trusted_files(const std::string& directory,
                                                    const std::string& suffix,
                                                    std::size_t max_files,
                                                    std::uint64_t max_bytes) {
    const auto opened = open_directory(directory);
    if (!opened) {
        return Failure(opened.error());
    }
    std::vector<std::string> texts;
    if (!*opened) {
        return texts;
    }
    const int fd = (*opened)->get();
    const auto names = list_names(base::UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 0)), directory, suffix);
    if (!names) {
        return Failure(names.error());
    }
    if (names->size() > max_files) {
        return failure(directory + " has more than " + std::to_string(max_files) + " files *" +
                       suffix);
    }
    for (const std::string& name : *names) {
        auto text = read_entry(fd, name, directory + "/" + name, max_bytes);
        if (!text) {
            return Failure(text.error());
        }
        texts.push_back(text->value_or(""));
    }
    return texts;
}

}  // namespace ad_agent
