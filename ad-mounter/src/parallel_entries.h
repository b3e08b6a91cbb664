/**
 * Processes the entries of one directory in two threads.
 */
#pragma once

#include "directory_reader.h"
#include "outcome.h"

namespace ad_mounter {

/** How many threads take part. */
constexpr int entry_workers = 2;

/** Processes one entry; `worker`, below entry_workers, identifies the calling thread. */
using EntryFunction = Outcome (*)(void* context, const DirectoryEntry& entry, int worker);

/**
 * Calls `function` for each entry of the open directory `directory`, from two threads, or from
 * one where no second one can be started. No entry is begun after a failure; returns the first
 * failure. Reads the directory from its current position on.
 */
Outcome for_each_entry_parallel(int directory, EntryFunction function, void* context);

/** As above, with a callable object. */
template <typename Callable>
Outcome for_each_entry_parallel(int directory, const Callable& callable) {
    return for_each_entry_parallel(
        directory,
        [](void* context, const DirectoryEntry& entry, int worker) {
            return (*static_cast<const Callable*>(context))(entry, worker);
        },
        const_cast<Callable*>(&callable));
}

}  // namespace ad_mounter
