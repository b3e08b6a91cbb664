/**
 * An image's version as text.
 */
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace ad_mounter {

/** Room for a version and its terminating NUL. */
constexpr size_t version_size = 20;

/** Copies a version: printable ASCII without blanks. Returns false when it is not one. */
inline bool copy_version(std::string_view text, char (&version)[version_size]) {
    if (text.empty() || text.size() >= version_size) {
        return false;
    }
    for (const char byte : text) {
        if (byte <= ' ' || byte > '~') {
            return false;
        }
    }
    memcpy(version, text.data(), text.size());
    version[text.size()] = '\0';
    return true;
}

}  // namespace ad_mounter
