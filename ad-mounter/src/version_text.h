// An image's version as text.
#ifndef AD_MOUNTER_VERSION_TEXT_H
#define AD_MOUNTER_VERSION_TEXT_H

#include <cstddef>
#include <cstring>
#include <string_view>

namespace ad_mounter {

/** Room for an image's version and a terminating null. */
constexpr size_t version_size = 20;

/** Keeps a version: printable ASCII without blanks. False when it is something else or too long. */
inline bool keep_version(std::string_view text, char (&version)[version_size]) {
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

#endif
