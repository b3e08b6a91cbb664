/** The firmware version from os-release(5). */
#include "system_information.h"

#include "base/os_release.h"

#include <cerrno>
#include <cstring>

extern "C" int system_info_get_value_string(int key, char** value) {
    if (key != SYSTEM_INFO_KEY_FIRMWARE_VERSION || value == nullptr) {
        return -EINVAL;
    }
    base::Owned<char> version;
    const int status = base::os_release_version(version);
    if (status != 0) {
        return status;
    }
    // A copy from malloc(3), since the caller releases it with free(3).
    char* copy = strdup(version.get());
    if (copy == nullptr) {
        return -ENOMEM;
    }
    *value = copy;
    return 0;
}
