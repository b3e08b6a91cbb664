/**
 * What the library does, independent of where its files are.
 */
#pragma once

#include "device_paths.h"

#include <string>
#include <utility>

namespace ad_agent {

/**
 * Each operation reads the configuration and opens the data directory anew, so that
 * changes to either take effect at once, and logs what it did or why it failed.
 */
class Agent {
public:
    explicit Agent(DevicePaths paths) : paths_(std::move(paths)) {}

    /**
     * Records which copy of the library the host has loaded. An installed copy that
     * could not be loaded marks its image as bad.
     * @param file           the loaded copy's path
     * @param had_updatable  whether the updatable copy existed at that time: a host that
     *                       loads the firmware's copy then has failed to load it
     */
    void report_loaded_library(const std::string& file, bool had_updatable) const;

    /** Fetches and stores a configuration document. Returns whether the stored one is current. */
    bool fetch_configuration(const std::string& url_path) const;

    /** Looks for an image to install. Returns whether one is in the data directory. */
    bool update(const std::string& stored_version) const;

    /** Records the version of the installed libraries. Returns whether it was written. */
    bool set_version(const std::string& version) const;

    /** Returns the recorded version, or no_version. */
    std::string version() const;

private:
    DevicePaths paths_;
};

}  // namespace ad_agent
