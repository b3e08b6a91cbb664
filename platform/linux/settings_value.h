#pragma once

#include <string>

namespace linux_platform {

/** A setting's value. */
struct SettingsValue {
    /**
     * SETTINGS_TYPE_INT for GVariant type "i", 0 for a key without a value. For
     * any other type the ASCII code of the first character of its GVariant type
     * string: "s" (text) 115, "b" (boolean) 98, "d" (double) 100, "u" 117, and
     * so on. 41 is none of them.
     */
    int type = 0;
    /** The value of an integer, else 0. */
    int integer = 0;
    /** The value in GVariant's text format, as dconf(1) prints it; empty without a value. */
    std::string text;

    bool operator==(const SettingsValue& other) const {
        return type == other.type && text == other.text;
    }
    bool operator!=(const SettingsValue& other) const { return !(*this == other); }
};

/**
 * Reads a key from the databases of the process's dconf profile.
 *
 * Only files are read, so no service has to run. From any thread.
 *
 * @param path  a dconf key such as "/db/menu_widget/language"
 */
SettingsValue read_settings_value(const std::string& path);

}  // namespace linux_platform
