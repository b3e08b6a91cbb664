// Takes files and directory trees away.
#ifndef AD_MOUNTER_REMOVE_H
#define AD_MOUNTER_REMOVE_H

#include "messages.h"
#include "table.h"

namespace ad_mounter {

/**
 * Removes `name` in the open directory `parent`, a tree with all that is in it,
 * whatever it is. Links are removed, never followed; another mount is never
 * entered. What is not there is success. `path` is for the failure's line.
 */
Outcome discard(int parent, const char* name, const char* path);

/** Does one --remove row. */
Outcome remove(const Row& row);

}  // namespace ad_mounter

#endif
