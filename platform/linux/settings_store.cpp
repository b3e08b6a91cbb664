/** The settings store on dconf: key "db/a/b" is the dconf key /db/a/b. */
#include "settings_store.h"

#include "settings_monitor.h"
#include "settings_value.h"

#include <cerrno>
#include <optional>
#include <string>

#include <dconf.h>

namespace linux_platform {

namespace {

/** The dconf key of a settings key; nothing when that is not a valid name. */
std::optional<std::string> dconf_path(const char* key) {
    if (key == nullptr || *key == '\0') {
        return std::nullopt;
    }
    std::string path = std::string("/") + key;
    if (dconf_is_key(path.c_str(), nullptr) == FALSE) {
        return std::nullopt;
    }
    return path;
}

}  // namespace

}  // namespace linux_platform

using linux_platform::dconf_path;
using linux_platform::SettingsMonitor;
using linux_platform::SettingsValue;

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn callback,
                                        void* user_data) {
    const std::optional<std::string> path = dconf_path(key);
    if (!path || callback == nullptr) {
        return -EINVAL;
    }
    SettingsMonitor::instance().watch(key, *path, callback, user_data);
    return 0;
}

extern "C" char* vconf_keynode_get_name(keynode_t* node) {
    return node != nullptr ? node->name.data() : nullptr;
}

extern "C" int vconf_keynode_get_type(keynode_t* node) {
    return node != nullptr ? node->value.type : 0;
}

extern "C" int vconf_keynode_get_int(keynode_t* node) {
    return node != nullptr ? node->value.integer : 0;
}

extern "C" int vconf_get_int(const char* key, int* value) {
    const std::optional<std::string> path = dconf_path(key);
    if (!path || value == nullptr) {
        return -EINVAL;
    }
    const SettingsValue current = linux_platform::read_settings_value(*path);
    if (current.type == 0) {
        return -ENOENT;
    }
    if (current.type != SETTINGS_TYPE_INT) {
        return -EINVAL;
    }
    *value = current.integer;
    return 0;
}
