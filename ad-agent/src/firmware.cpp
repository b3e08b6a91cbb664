#include "firmware.h"

#include "system_information.h"

#include <cstdlib>

// The daemon links the platform library. Hosts without one can load this library too.
#pragma weak system_info_get_value_string

namespace ad_agent {

std::string firmware_version() {
    char* text = nullptr;
    if (!system_info_get_value_string ||
        system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &text) != 0 || !text) {
        return "";
    }
    std::string version = text;
    free(text);
    return version;
}

}  // namespace ad_agent
