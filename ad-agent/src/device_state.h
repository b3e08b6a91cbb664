/**
 * What the library remembers between starts about images on this device, in the
 * key file "state.ini" of the data folder.
 */
#ifndef AD_AGENT_DEVICE_STATE_H
#define AD_AGENT_DEVICE_STATE_H

#include "data_folder.h"

#include <string>
#include <vector>

namespace ad_agent {

inline constexpr char STATE_NAME[] = "state.ini";

struct DeviceState {
    /** The image whose libraries were installed last; empty for none that is known. */
    std::string installed_sha256;
    std::string installed_version;
    /** Whether its agent library has been loaded since. */
    bool installed_loaded = false;

    /** The image that was offered to the host last, and under which firmware. */
    std::string offered_version;
    std::string offered_firmware;
    /** How often it was offered from the store because its installation was cut. */
    int repairs = 0;

    /** The SHA-256 of images whose library failed to load here, the latest last. */
    std::vector<std::string> bad;

    bool is_bad(const std::string& sha256) const;
    /** Adds an image to the bad ones, of which only the latest 32 are kept. */
    void add_bad(const std::string& sha256);
};

/** Reads the state. A file that is missing or not readable is a device's first. */
DeviceState read_state(const DataFolder& folder);

/** Replaces the state. @return whether it did, with the reason in error */
bool write_state(const DataFolder& folder, const DeviceState& state, std::string& error);

}  // namespace ad_agent

#endif
