/**
 * Files that come with the firmware and decide what is accepted. They count only if
 * nobody but root can change them: root owns the file and every directory above it, and
 * no other user may write to any of these, sticky directories aside. Symbolic links are
 * rejected.
 */
#pragma once

#include "base/unique_fd.h"
#include "result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ad_agent {

/** Reads the file of an absolute path; none if there is no such file. */
Result<std::optional<std::string>> read_trusted_file(const std::string& path,
                                                     std::uint64_t max_bytes);

/**
 * Reads the files of a directory whose names end in `suffix`, at most `max_files` of them;
 * none if there is no such directory.
 */
Result<std::vector<std::string>> read_trusted_files(const std::string& directory,
                                                    const std::string& suffix,
                                                    std::size_t max_files, std::uint64_t max_bytes);

}  // namespace ad_agent
