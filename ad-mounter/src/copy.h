// Copies single files so that they last.
#ifndef AD_MOUNTER_COPY_H
#define AD_MOUNTER_COPY_H

#include "create.h"
#include "messages.h"
#include "pinned_path.h"
#include "table.h"
#include "unique_fd.h"

#include <cstddef>
#include <cstdint>

namespace ad_mounter {

/**
 * Copies `size` bytes from the start of `from` to the empty file `to`, starting
 * the write-back of each piece while the next is copied. `buffer` serves small
 * files and kernels that cannot copy by themselves. 0 or an errno; EIO when the
 * source ends early.
 */
int copy_bytes(int from, int to, uint64_t size, char* buffer, size_t buffer_size);

/** The same with a buffer of its own; not for several threads. */
int copy_bytes(int from, int to, uint64_t size);

/** Makes the directory of `row.target` where it is missing, and pins it. */
Outcome pin_target(const Row& row, const Caller& caller, Place& place);

/** Does a --copylib row: the file is new as a whole or not at all. */
Outcome copy_library(const Row& row, const Caller& caller);

}  // namespace ad_mounter

#endif
