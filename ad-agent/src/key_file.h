/**
 * Reading of key files in the data directory, in which the agent library and the guard keep
 * their records.
 */
#pragma once

#include "base/glib_owned.h"
#include "data_directory.h"

#include <cstdint>
#include <string>

#include <glib.h>

namespace ad_agent {

/** Returns a key's text, empty if the key is missing. */
inline std::string read_text(GKeyFile* file, const char* group, const char* key) {
    const base::Owned<char> text(g_key_file_get_string(file, group, key, nullptr));
    return text ? text.get() : "";
}

/** Returns a file's keys, or null if it cannot be read, is torn or larger than `max_bytes`. */
inline base::Owned<GKeyFile> load_key_file(const DataDirectory& directory, const char* name,
                                           std::uint64_t max_bytes) {
    const auto text = directory.read(name, max_bytes);
    base::Owned<GKeyFile> file(g_key_file_new());
    if (!text || g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE,
                                           nullptr) == FALSE) {
        file.reset();
    }
    return file;
}

}  // namespace ad_agent
