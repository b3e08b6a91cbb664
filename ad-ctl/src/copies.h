/**
 * Which copy of the agent library the daemon runs, and why that one.
 */
#pragma once

#include "snapshot.h"

#include <string>

namespace ad_ctl {

enum class Copy { none, updatable, firmware };

enum class Reason {
    installed,         // an update was installed
    never_installed,   // no update was
    did_not_load,      // the dynamic loader rejected the updatable copy
    crashed,           // the guard gave the updatable copy up
    firmware_changed,  // the daemon removes an updatable copy then
    firmware_newer,    // than the updatable copy, which the daemon removes then
    interrupted,       // the installation was
    pending,           // an update was installed since the daemon started
    not_running,
    not_recorded,
};

struct Choice {
    Copy copy = Copy::none;
    Reason reason = Reason::not_recorded;
    /** The reason in words. */
    std::string detail;
};

/** Returns which copy the next start of the daemon loads, decided from files as it does. */
Choice next_choice(const Snapshot& snapshot);

/** Returns which copy runs: what the process has loaded or, if that cannot be seen, is to have. */
Choice running_choice(const Snapshot& snapshot);

/** Returns the words that stand for them in JSON. */
const char* name_of(Copy copy);
const char* name_of(Reason reason);

}  // namespace ad_ctl
