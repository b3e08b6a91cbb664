/**
 * The version of the system, from os-release(5). Needs glib-2.0.
 */
#pragma once

#include "base/glib_owned.h"

#include <cerrno>

#include <unistd.h>

namespace base {

/**
 * Reads the version of the image, on a system that is built as one; else of the distribution.
 * @param version  set on success
 * @return 0, -ENOENT without os-release(5), or -ENODATA if it states no version
 */
inline int os_release_version(Owned<char>& version) {
    // Without the file, GLib falls back to the kernel's version.
    if (access("/etc/os-release", R_OK) != 0 && access("/usr/lib/os-release", R_OK) != 0) {
        return -ENOENT;
    }
    constexpr const char* fields[] = {"IMAGE_VERSION", "VERSION_ID"};
    for (const char* field : fields) {
        Owned<char> value(g_get_os_info(field));
        if (value && *value != '\0') {
            version = std::move(value);
            return 0;
        }
    }
    return -ENODATA;
}

}  // namespace base
