/**
 * Whether the device has what an update needs.
 */
#pragma once

#include "index_signature.h"
#include "snapshot.h"

#include <string>
#include <vector>

namespace ad_ctl {

enum class CheckState { ok, failed, unseen };

struct Check {
    std::string name;
    CheckState state;
    std::string detail;
};

/** Checks everything, in the order in which an update needs it. */
std::vector<Check> check_readiness(const Snapshot& snapshot);

/** Returns the word that stands for it in JSON. */
const char* name_of(CheckState state);

/**
 * Reads the keys that ad-mounter verifies images with; fails if one is malformed or a user other
 * than root could change one.
 */
ad_agent::Result<ad_agent::IndexKeys> load_image_keys();

}  // namespace ad_ctl
