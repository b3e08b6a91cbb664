#include "platform.h"

#include "system_information.h"

#include <cstring>

std::string platform_firmware = "T-1200.1";

int system_info_get_value_string(int key, char** value) {
    if (key != SYSTEM_INFO_KEY_FIRMWARE_VERSION || platform_firmware.empty()) return -1;
    *value = strdup(platform_firmware.c_str());
    return 0;
}
