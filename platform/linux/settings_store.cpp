/** The settings store on dconf: key "db/a/b" is the dconf key /db/a/b. */
#include "settings_store.h"

#include "glib_pointers.h"
#include "settings_monitor.h"
#include "settings_value.h"

#include <cerrno>

#include <dconf.h>

namespace linux_platform {

namespace {

/** False when dconf has no such name for a key. */
bool to_path(const char* key, std::string* path) {
    if (!key || !*key) return false;
    *path = std::string("/") + key;
    return dconf_is_key(path->c_str(), nullptr) != FALSE;
}

}  // namespace

}  // namespace linux_platform

using linux_platform::SettingsMonitor;
using linux_platform::SettingsValue;

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn callback,
                                        void* user_data) {
    std::string path;
    if (!callback || !linux_platform::to_path(key, &path)) return -EINVAL;
    SettingsMonitor::instance().watch(key, path, callback, user_data);
    return 0;
}

extern "C" char* vconf_keynode_get_name(keynode_t* node) {
    return node ? node->name.data() : nullptr;
}

extern "C" int vconf_keynode_get_type(keynode_t* node) { return node ? node->value.type : 0; }

extern "C" int vconf_keynode_get_int(keynode_t* node) { return node ? node->value.integer : 0; }

extern "C" int vconf_get_int(const char* key, int* value) {
    std::string path;
    if (!value || !linux_platform::to_path(key, &path)) return -EINVAL;
    const SettingsValue current = linux_platform::read_settings_value(path);
    if (current.type == 0) return -ENOENT;
    if (current.type != SETTINGS_TYPE_INT) return -EINVAL;
    *value = current.integer;
    return 0;
}
