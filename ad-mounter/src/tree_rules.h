/**
 * What a tree may contain that is copied as root.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"

#include <climits>

#include <sys/types.h>

namespace ad_mounter {

/** The mode bits that are copied. */
constexpr mode_t copied_mode_bits = 01777;

/** Why something with this mode, file type included, is not copied; null when it is. */
const char* mode_rejection(mode_t mode);

/**
 * Whether a symbolic link with this target, in a directory `depth` levels below the top of a
 * tree, stays inside the tree: relative, with ".." only at its start and not beyond the top.
 */
bool link_stays_inside(const char* target, int depth);

/** Reads a symbolic link and rejects one that leaves the tree. */
Outcome read_inner_link(int directory, const char* name, int depth, char (&target)[PATH_MAX]);

/** Opens a subdirectory `depth` levels below the top; rejects mounts and excessive nesting. */
Outcome open_subdirectory(int parent, const char* name, int depth, base::UniqueFd& directory);

/** A rejection of the entry `name` in the open directory `directory`. */
Outcome reject_entry(int directory, const char* name, const char* reason);

}  // namespace ad_mounter
