/**
 * What the library remembers about images and indexes on this device, in the key file
 * "state.ini" of the data directory.
 */
#pragma once

#include "data_directory.h"
#include "refused_images.h"
#include "result.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ad_agent {

/** The IDs of index keys, and the highest serial number of an index accepted from each. */
using IndexSerials = std::vector<std::pair<std::string, std::uint64_t>>;

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

    /** Images whose library failed to load here: refused for good. */
    RefusedImages bad;
    /** Images that were downloaded and turned out wrong: refused for some time. */
    RefusedImages wrong;

    IndexSerials index_serials;

    /** When and where an update was last looked for, and what came of it. */
    std::int64_t check_time = 0;
    std::string check_url;
    std::string check_result;
};

/** Reads the state. A missing or unreadable file reads as nothing known. */
DeviceState read_state(const DataDirectory& directory);

Result<> write_state(const DataDirectory& directory, const DeviceState& state);

}  // namespace ad_agent
