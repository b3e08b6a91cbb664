/**
 * What the guard remembers about the updatable copy of the agent library, in the key file
 * "guard.ini" of the agent library's data directory.
 */
#pragma once

#include "data_directory.h"
#include "failure.h"
#include "result.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ad_guard {

/** What became of the daemon's last start so far. */
enum class StartState {
    none,     // it ended, and was judged
    running,  // not yet confirmed
    good,     // it has lived for as long as it takes to be confirmed
    stopped,  // it was asked to stop
};

struct Start {
    StartState state = StartState::none;
    /** The boot it took place in, see boot_id in random(4); empty if it is not known. */
    std::string boot;
    /** When, in seconds of CLOCK_MONOTONIC. */
    std::int64_t monotonic = 0;
    /** Until it was asked to stop, in seconds. */
    std::int64_t duration = 0;
};

struct Record {
    /** The SHA-256 of the copy, empty if there is none, and the firmware it is used with. */
    std::string library;
    std::string firmware;
    /**
     * The image that the agent library had recorded as installed when this copy was started last,
     * or the last copy if there is none, and that of the copy before.
     */
    std::string installed;
    std::string installed_before;

    /** How often it was started, and whether it is confirmed. */
    int starts = 0;
    bool confirmed = false;
    /** Failures since it was installed or confirmed last, the interrupted ones counted apart. */
    int failed = 0;
    int interrupted = 0;
    /** How the last of them ended. */
    FailureKind last_kind = FailureKind::crashed;
    std::string last_ending;

    Start start;
    /** The latest failures, confirmed or not, the last one last. */
    std::vector<Failure> recent;
    /** The highest time that the clock has ever shown, in seconds since 1970. */
    std::int64_t latest_time = 0;
};

/** Reads the record. A missing or damaged file reads as nothing known. */
Record read_record(const ad_agent::DataDirectory& directory);

/** Replaces the record durably. */
ad_agent::Result<> write_record(const ad_agent::DataDirectory& directory, const Record& record);

}  // namespace ad_guard
