/**
 * Where things are on the device.
 */
#ifndef AD_AGENT_PLACES_H
#define AD_AGENT_PLACES_H

#include <string>

namespace ad_agent {

struct Places {
    /** The library's configuration, and the folder of its files. */
    std::string configuration;
    std::string data_folder;
    /** The image that was put in place last. */
    std::string stored_image;
    /** The copy of this library that updates install, and the one of the firmware. */
    std::string updatable_library;
    std::string firmware_library;
    /** The manifest that tells the version of the firmware's copy. */
    std::string firmware_manifest;
};

}  // namespace ad_agent

#endif
