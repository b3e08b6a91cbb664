/**
 * Creates missing directories.
 */
#pragma once

#include "base/unique_fd.h"
#include "operations.h"
#include "outcome.h"
#include "target.h"

namespace ad_mounter {

/** Mode and owner for what `operation` creates; root's and 0755 where it is null. */
Ownership ownership_of(const Operation* operation, const Caller& caller);

/**
 * Opens the absolute path `path`, creating the directories that are missing with the mode and
 * owner of their operation, else root's and 0755. Existing ones stay as they are. `directory`
 * is then open for reading.
 */
Outcome ensure_directory(const char* path, const Caller& caller, base::UniqueFd& directory);

/** Opens `target` for the operation's target, after creating its parents where missing. */
Outcome ensure_parent(const Operation& operation, const Caller& caller, Target& target);

}  // namespace ad_mounter
