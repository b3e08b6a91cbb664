/**
 * Removes files and directory trees.
 */
#pragma once

#include "outcome.h"

namespace ad_mounter {

/**
 * Removes the entry `name` of the open directory `parent`, whatever it is, with everything
 * below it. Symbolic links are removed, not followed; other mounts are not entered and make it
 * fail with EX_TEMPFAIL. A missing entry is a success. `path` is for error messages.
 */
Outcome remove_recursively(int parent, const char* name, const char* path);

}  // namespace ad_mounter
