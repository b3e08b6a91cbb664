// Replaces a directory tree by a copy of another one.
#ifndef AD_MOUNTER_TREE_COPY_H
#define AD_MOUNTER_TREE_COPY_H

#include "create.h"
#include "messages.h"
#include "table.h"

namespace ad_mounter {

/** Does a --copy_all row: the tree is the old one or the new one, never a mixture. */
Outcome copy_tree(const Row& row, const Caller& caller);

/**
 * Whether a symbolic link with this target, in a directory `depth` levels below
 * the top of a tree, stays inside the tree: relative, and ".." only at its
 * start and not beyond the top.
 */
bool link_stays_inside(const char* target, int depth);

}  // namespace ad_mounter

#endif
