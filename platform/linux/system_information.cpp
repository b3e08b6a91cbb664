/** The firmware version from os-release(5). */
#include "system_information.h"

#include "base/glib_owned.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace linux_platform {

namespace {

/** The version of the image, on a system that is built as one; else of the distribution. */
constexpr const char* version_fields[] = {"IMAGE_VERSION", "VERSION_ID"};

bool has_os_release() {
    return access("/etc/os-release", R_OK) == 0 || access("/usr/lib/os-release", R_OK) == 0;
}

}  // namespace

}  // namespace linux_platform

extern "C" int system_info_get_value_string(int key, char** value) {
    if (key != SYSTEM_INFO_KEY_FIRMWARE_VERSION || value == nullptr) {
        return -EINVAL;
    }
    // Without the file, GLib falls back to the kernel's version.
    if (!linux_platform::has_os_release()) {
        return -ENOENT;
    }
    for (const char* field : linux_platform::version_fields) {
        const base::Owned<char> version(g_get_os_info(field));
        if (!version || *version == '\0') {
            continue;
        }
        // A copy from malloc(3), since the caller releases it with free(3).
        char* copy = strdup(version.get());
        if (copy == nullptr) {
            return -ENOMEM;
        }
        *value = copy;
        return 0;
    }
    return -ENODATA;
}
