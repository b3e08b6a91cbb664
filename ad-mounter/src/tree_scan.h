/**
 * Checks a tree and measures it, before anything of it is copied.
 */
#pragma once

#include "outcome.h"

#include <cstdint>

namespace ad_mounter {

/** What the copy of a tree takes up. */
struct TreeSize {
    uint64_t blocks = 0;
    uint64_t inodes = 0;
};

/**
 * Rejects the tree below the open directory `top` when any of it breaks the rules of
 * tree_rules.h, and adds up its size in blocks of `block_size` bytes.
 */
Outcome scan_tree(int top, uint64_t block_size, TreeSize& size);

}  // namespace ad_mounter
