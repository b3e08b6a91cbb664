/**
 * Reading files that may turn out to be something else.
 */
#pragma once

#include "base/unique_fd.h"
#include "result.h"

#include <cstdint>
#include <string>

namespace ad_agent {

/**
 * Opens a regular file for reading. Never blocks, as open(2) would on a FIFO.
 * @param directory  descriptor that a relative `path` starts from, or AT_FDCWD
 * @param flags      further flags of open(2), such as O_NOFOLLOW
 */
Result<base::UniqueFd> open_regular_file(int directory, const std::string& path, int flags);

/** Reads a whole file, opened as above. Fails if it is larger than `max_bytes`. */
Result<std::string> read_regular_file(int directory, const std::string& path, int flags,
                                      std::uint64_t max_bytes);

}  // namespace ad_agent
