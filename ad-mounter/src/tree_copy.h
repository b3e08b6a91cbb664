/**
 * Copies the contents of a directory tree.
 */
#pragma once

#include "outcome.h"

#include <sys/types.h>

namespace ad_mounter {

/**
 * Copies everything in the open directory `from`, read from its current position on, into the
 * empty directory `to`, in two threads. Modes are kept, owners are the process's. The rules of
 * tree_rules.h are checked again on what is opened: the tree may have changed since its scan.
 */
Outcome copy_contents(int from, int to);

/** Applies the mode bits of a copied directory or file that mkdirat(2) and openat(2) did not.
 * Returns 0 or an errno value. */
int set_copied_mode(int fd, mode_t mode);

}  // namespace ad_mounter
