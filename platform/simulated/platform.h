/**
 * All services on one state file.
 */
#pragma once

#include "log_file.h"
#include "network.h"
#include "settings.h"
#include "state_store.h"

#include <string>
#include <vector>

namespace simulated_platform {

/** Must be used from one thread, the one that runs GLib's default main context. */
class Platform {
public:
    /**
     * @param path  the state file, absolute
     * @param log   receives errors about it, as standard error does; borrowed
     */
    Platform(const std::string& path, LogFile& log);
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    Settings& settings() { return settings_; }
    Network& network() { return network_; }

    /** See system_information.h. Failures are negative errno(3) values. */
    int get_value_string(int key, char** value) const;

private:
    void loaded(const std::vector<Change>& changes);
    void changed(const Change& change);
    void report(const std::string& line);

    LogFile& log_;
    StateStore store_;
    Settings settings_;
    Network network_;
};

/** The process's platform. The first call reads the state. */
Platform& process_platform();

}  // namespace simulated_platform
