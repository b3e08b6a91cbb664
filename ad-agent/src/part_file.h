/**
 * Durable, atomic replacement of files in the data directory: the new contents are
 * written to a temporary sibling, fsync(2)ed and renamed, and the directory is
 * fsync(2)ed. A reader sees the old file or the new one, whole, even after a power
 * failure. The sibling's name is fixed, so that what a killed process leaves behind
 * can be resumed or is overwritten, and never accumulates.
 */
#pragma once

#include "data_directory.h"
#include "result.h"

#include <cstdint>
#include <string>

namespace ad_agent {

inline constexpr char part_suffix[] = ".part";

/**
 * The temporary sibling, "NAME.part". Removed when it goes out of scope, unless
 * commit() or keep() was called. Must not outlive its directory.
 */
class PartFile {
public:
    /** Starts an empty one and discards an earlier one. */
    static Result<PartFile> create(const DataDirectory& directory, const std::string& name);

    /** Opens the one that keep() left, or starts an empty one. */
    static Result<PartFile> resume(const DataDirectory& directory, const std::string& name);

    /** Removes "NAME.part", if it exists. */
    static void remove(const DataDirectory& directory, const std::string& name);

    /** Removes every part file except that of the file `kept`. */
    static void remove_all_except(const DataDirectory& directory, const std::string& kept);

    PartFile(PartFile&& other) noexcept = default;
    PartFile& operator=(PartFile&&) = delete;
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    ~PartFile();

    /** Its descriptor, open for reading and writing; still owned by this object. */
    int fd() const { return fd_.get(); }
    /** Its temporary name. */
    std::string name() const { return name_ + part_suffix; }
    /** Its size in bytes. */
    std::uint64_t size() const { return directory_.size_of(name()).value_or(0); }

    /** Truncates it to zero bytes. */
    Result<> clear();

    /** Leaves it in place for a later resume(). */
    void keep() { fd_.reset(); }

    /** Renames it to its final name, with mode 0644. */
    Result<> commit();

private:
    PartFile(const DataDirectory& directory, std::string name, base::UniqueFd fd)
        : directory_(directory), name_(std::move(name)), fd_(std::move(fd)) {}

    const DataDirectory& directory_;
    std::string name_;
    base::UniqueFd fd_;  // none after a move, commit() and keep()
};

/**
 * Replaces a file's contents. On failure the old contents are in place, or the new
 * ones if all that failed was to make the rename durable.
 */
Result<> replace_file(const DataDirectory& directory, const std::string& name,
                      const std::string& text);

}  // namespace ad_agent
