/**
 * The system-information service: facts about the device, by key number.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

enum system_info_key {
    /** The firmware version, a text such as "T-1200.3". */
    SYSTEM_INFO_KEY_FIRMWARE_VERSION = 1104
};

/**
 * Reads one fact as text.
 *
 * @param key    a system_info_key
 * @param value  receives a newly allocated text on success, which the caller
 *               releases with free(3); unchanged on failure
 * @return 0, or an error code of the implementation's own
 */
int system_info_get_value_string(int key, char** value);

#ifdef __cplusplus
}
#endif
