// Replaces a directory tree by a copy of another one.
#ifndef AD_MOUNTER_TREE_COPY_H
#define AD_MOUNTER_TREE_COPY_H

#include "create.h"
#include "messages.h"
#include "table.h"

namespace ad_mounter {

/** Does a --copy_all row: the tree is the old one or the new one, never a mixture. */
Outcome copy_tree(const Row& row, const Caller& caller);

}  // namespace ad_mounter

#endif
