#include "settings.h"

#include <cerrno>

namespace simulated_platform {

int Settings::watch(const char* key, vconf_callback_fn callback, void* user_data) {
    if (const int result = state_.result(Call::vconf_notify_key_changed)) return result;
    if (!key || !callback) return -EINVAL;
    watches_.push_back({key, callback, user_data});
    return 0;
}

int Settings::get_int(const char* key, int* value) const {
    if (const int result = state_.result(Call::vconf_get_int)) return result;
    if (!key || !value) return -EINVAL;
    const Setting* setting = state_.setting(key);
    if (!setting) return -ENOENT;
    if (setting->type != SETTINGS_TYPE_INT) return -EINVAL;
    *value = setting->integer;
    return 0;
}

void Settings::changed(const Change& change) {
    settings_keynode node{change.name, change.type, change.value};
    // A callback may add a watch: by index, and not as far as the new ones.
    const std::size_t count = watches_.size();
    for (std::size_t index = 0; index < count; ++index) {
        const Watch watch = watches_[index];
        if (watch.key == change.name) watch.callback(&node, watch.user_data);
    }
}

}  // namespace simulated_platform
