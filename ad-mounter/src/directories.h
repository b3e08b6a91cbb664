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
 * Whether directories that exist are synced like new ones: a run that was killed may have
 * created them without coming to that.
 */
enum class Found : unsigned char { keep, sync };

/**
 * Opens the absolute path `path`, creating the directories that are missing with the mode and
 * owner of their operation, else root's and 0755. Existing ones stay as they are, but each must
 * be trusted, see trusted_path.h, and is synced. `directory` is then open for reading.
 */
Outcome ensure_directory(const char* path, const Caller& caller, base::UniqueFd& directory);

/** Opens `target` for the operation's target, after creating its parents where missing. */
Outcome ensure_parent(const Operation& operation, const Caller& caller, Target& target,
                      Found found = Found::keep);

}  // namespace ad_mounter
