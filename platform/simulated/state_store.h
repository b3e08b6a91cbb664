/**
 * The last good state of a file.
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
 * Keeps the last good state of a file and reports its changes.
 *
 * The file is read at construction and then whenever GLib's default main context
 * notices new content. A file that cannot be used is reported with one line and
 * changes nothing; a missing one is reported once. Before the first good one the
 * state is the empty State.
 */
class StateStore {
public:
    using Listener = std::function<void(const std::vector<Change>&)>;
    using Reporter = std::function<void(const std::string&)>;

    /**
     * @param path     absolute
     * @param on_load  called by the main context after each successful reading,
     *                 with the changes in order; state() is the new one already
     * @param report   receives one line, without a newline, about what is wrong
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
    bool is_known_missing_ = false;
    FileWatch watch_;
};

}  // namespace simulated_platform
