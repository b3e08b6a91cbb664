// What may be in a tree that is copied as root, and how much room it takes.
#ifndef AD_MOUNTER_TREE_RULES_H
#define AD_MOUNTER_TREE_RULES_H

#include "messages.h"

#include <cstdint>

#include <sys/types.h>

namespace ad_mounter {

/** How many directories may be inside each other. */
constexpr int deepest_tree = 64;

/** The mode bits that are kept. */
constexpr mode_t kept_mode_bits = 01777;

/** Why something with this mode (file type included) is not copied; null when it is. */
const char* refusal_of_mode(mode_t mode);

/**
 * Whether a symbolic link with this target, in a directory `depth` levels below
 * the top of a tree, stays inside the tree: relative, and ".." only at its
 * start and not beyond the top.
 */
bool link_stays_inside(const char* target, int depth);

/** What a tree needs where it is copied to. */
struct TreeSize {
    uint64_t blocks = 0;  ///< of the size that was asked for
    uint64_t inodes = 0;
};

/**
 * Goes through the tree of the open directory `top`, before anything is copied:
 * refuses it when there is anything in it that is not copied, and adds up its
 * size in blocks of `block_size` bytes.
 */
Outcome survey_tree(int top, uint64_t block_size, TreeSize& size);

/** A refusal of `name` in the open directory `directory`. */
Outcome refuse_entry(int directory, const char* name, const char* reason);

/** A failure with `name` in the open directory `directory`. */
Outcome fail_entry(const char* step, int directory, const char* name, int error);

}  // namespace ad_mounter

#endif
