/**
 * Where things are on the device.
 */
#pragma once

#include <string>

namespace ad_agent {

struct DevicePaths {
    std::string configuration;
    std::string data_directory;
    /** The image that was installed last. */
    std::string stored_image;
    /** The file with the highest version that was ever stored. */
    std::string floor;
    /** The copy of this library that updates install, and that of the firmware. */
    std::string updatable_library;
    std::string firmware_library;
    /** The manifest with the version of the firmware's copy. */
    std::string firmware_manifest;
    /** The directory of the keys that an index is signed with. */
    std::string index_keys;
    /** The file with the product's name. */
    std::string product;
};

/** Returns where they are. */
inline DevicePaths device_paths() {
    return {"/opt/etc/ad-agent.conf",
            "/opt/usr/apps/adagent",
            "/opt/down/zels/zelADAgent_img/zelADAgent.img",
            "/opt/down/zels/zelADAgent_img/zelADAgent.floor",
            "/opt/usr/lib/libad-agent-fwk.so",
            "/usr/lib/libad-agent-fwk.so",
            "/usr/bin/zels/zelADAgent/zelADAgent.xml",
            "/usr/lib/ad-agent/keys",
            "/usr/lib/ad-mounter/product"};
}

}  // namespace ad_agent
