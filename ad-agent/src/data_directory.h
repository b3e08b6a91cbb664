/**
 * The directory that holds the library's files.
 */
#pragma once

#include "base/unique_fd.h"
#include "result.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/** Owns a descriptor of the directory. File names are plain names in it. */
class DataDirectory {
public:
    /** Opens an existing directory. */
    static Result<DataDirectory> open(const std::string& path);

    /** Opens a directory after creating it, mode 0755, and its parents where they are missing. */
    static Result<DataDirectory> create(const std::string& path);

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    std::string path_of(const std::string& name) const { return path_ + "/" + name; }

    /** Returns a regular file's size in bytes, or none if there is no such file. */
    std::optional<std::uint64_t> size_of(const std::string& name) const;

    /** Returns a file's contents, or none if it cannot be read or is larger than `max_bytes`. */
    std::optional<std::string> read(const std::string& name, std::uint64_t max_bytes) const;

    /** Removes a file, if there is one. */
    void remove(const std::string& name) const;

    /** Fails unless this process may write `bytes` more to the file system. */
    Result<> require_space(std::uint64_t bytes) const;

private:
    DataDirectory(std::string path, base::UniqueFd fd)
        : path_(std::move(path)), fd_(std::move(fd)) {}

    std::string path_;
    base::UniqueFd fd_;
};

}  // namespace ad_agent
