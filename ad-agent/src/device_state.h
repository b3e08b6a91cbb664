/**
 * What the library remembers about images on this device, in the key file "state.ini"
 * of the data directory.
 */
#pragma once

#include "data_directory.h"
#include "result.h"

#include <string>
#include <vector>

namespace ad_agent {

struct DeviceState {
    /** The image whose libraries were installed last; empty if it is not known. */
    std::string installed_sha256;
    std::string installed_version;
    /** Whether its agent library has been loaded since. */
    bool installed_loaded = false;

    /** The image that the host was offered last, and the firmware at that time. */
    std::string offered_version;
    std::string offered_firmware;
    /** How often it was offered again because its installation had been interrupted. */
    int repairs = 0;

    /** SHA-256 of the images whose library failed to load here, the latest last. */
    std::vector<std::string> bad;

    bool is_bad(const std::string& sha256) const;
    /** Adds a bad image; only the latest 32 are kept. */
    void add_bad(const std::string& sha256);
};

/** Reads the state. A missing or unreadable file reads as nothing known. */
DeviceState read_state(const DataDirectory& directory);

Result<> write_state(const DataDirectory& directory, const DeviceState& state);

}  // namespace ad_agent
