#include "firmware.h"

#include "system_information.h"

#include <cstdlib>

// The daemon brings the platform's library along. Other hosts have none, and the
// library must load into them all the same.
#pragma weak system_info_get_value_string

namespace ad_agent {

std::string firmware_version() {
    char* text = nullptr;
    if (!system_info_get_value_string ||
        system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &text) != 0 || !text)
        return "";
    std::string version = text;
    free(text);
    return version;
}

}  // namespace ad_agent
