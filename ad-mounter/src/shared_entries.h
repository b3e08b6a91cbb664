// The entries of one directory, worked off by two threads.
#ifndef AD_MOUNTER_SHARED_ENTRIES_H
#define AD_MOUNTER_SHARED_ENTRIES_H

#include "directory_reader.h"
#include "messages.h"

namespace ad_mounter {

/** How many threads take part. */
constexpr int entry_workers = 2;

/** Deals with one entry; `worker` (below entry_workers) tells which thread calls. */
using EntryWork = Outcome (*)(void* context, const DirectoryEntry& entry, int worker);

/**
 * Calls `work` for each entry of `directory`, from two threads, each taking the
 * next entry when it is done with one. Without a second thread the first does
 * it all. After a failure no further entry is begun; gives the first one.
 */
Outcome share_entries(int directory, EntryWork work, void* context);

/** The same with a callable object. */
template <typename Work>
Outcome share_entries(int directory, const Work& work) {
    return share_entries(
        directory,
        [](void* context, const DirectoryEntry& entry, int worker) {
            return (*static_cast<const Work*>(context))(entry, worker);
        },
        const_cast<Work*>(&work));
}

}  // namespace ad_mounter

#endif
