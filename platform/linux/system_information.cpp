/** The firmware version from os-release(5). */
#include "system_information.h"

#include "glib_pointers.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace linux_platform {

namespace {

/** An image-based system has a version of the image; others one of the distribution. */
constexpr const char* VERSION_FIELDS[] = {"IMAGE_VERSION", "VERSION_ID"};

bool has_os_release() {
    return access("/etc/os-release", R_OK) == 0 || access("/usr/lib/os-release", R_OK) == 0;
}

}  // namespace

}  // namespace linux_platform

extern "C" int system_info_get_value_string(int key, char** value) {
    using namespace linux_platform;
    if (key != SYSTEM_INFO_KEY_FIRMWARE_VERSION || !value) return -EINVAL;
    // Without the file GLib would answer with the kernel's version.
    if (!has_os_release()) return -ENOENT;
    for (const char* field : VERSION_FIELDS) {
        const TextPointer version(g_get_os_info(field));
        if (!version || !*version) continue;
        char* copy = strdup(version.get());
        if (!copy) return -ENOMEM;
        *value = copy;
        return 0;
    }
    return -ENODATA;
}
