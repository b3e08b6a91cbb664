/**
 * The state as the file last gave it.
 */
#pragma once

#include "change.h"
#include "file_watch.h"
#include "state.h"

#include <functional>
#include <string>
#include <vector>

namespace simulated_platform {

/**
 * Holds the last good state of a file and tells of its changes.
 *
 * Construction reads the file; from then on it is read whenever GLib's default
 * main context finds it new, and at no other time. A file that cannot be taken
 * is reported with one line and changes nothing; that it is missing is reported
 * once. While there never was a good
 * one, the state is the empty State.
 */
class StateStore {
public:
    using Listener = std::function<void(const std::vector<Change>&)>;
    using Reporter = std::function<void(const std::string&)>;

    /**
     * @param path       absolute
     * @param on_load  called by the main context after every good reading, with
     *                 the changes in order, if any; state() has the new state by
     *                 then
     * @param report     takes one line, without a line end, for the one who
     *                   edits the file
     */
    StateStore(std::string path, Listener on_load, Reporter report);

    const State& state() const { return state_; }

private:
    void reload();
    bool load(State& state);

    std::string path_;
    Listener on_load_;
    Reporter report_;
    State state_;
    bool is_missing_known_ = false;
    FileWatch watch_;
};

}  // namespace simulated_platform
