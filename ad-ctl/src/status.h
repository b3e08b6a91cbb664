/**
 * How the device is: the model behind the screen and the JSON document.
 */
#pragma once

#include "copies.h"
#include "readiness.h"
#include "snapshot.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ad_ctl {

/** The exit statuses of "status". */
enum class Health { healthy = 0, fallback = 1, cannot_update = 2 };

struct Download {
    std::string version;
    std::uint64_t received = 0;
    /** 0 if it is not known. */
    std::uint64_t size = 0;
    bool is_complete = false;
};

struct Status {
    Snapshot snapshot;
    Health health = Health::healthy;
    /** Why the device is not healthy, one line each. */
    std::vector<std::string> problems;
    Choice running;
    Choice next;
    /** Whether the stored image was mounted, before which ad-mounter verifies it. */
    bool is_verified = false;
    /** Whether the key that the stored image is signed with is installed. */
    bool has_key = false;
    std::optional<Download> download;
    /** When the daemon looks for an update again. */
    std::string next_try;
    /** Until when the server's image is not downloaded again, or 0. */
    std::int64_t not_before = 0;
    std::vector<Check> readiness;
    /** How often the daemon failed with the updatable copy in the last 24 hours. */
    int recent_failures = 0;
};

Status read_status();

/** Returns the status as a JSON document, as docs/adagentctl.md describes it. */
std::string to_json(const Status& status);

/** Returns the status as lines for a terminal. */
std::string to_screen(const Status& status);

/** Returns the word that stands for it in JSON. */
const char* name_of(Health health);

}  // namespace ad_ctl
