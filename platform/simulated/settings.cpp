#include "settings.h"

#include <cerrno>

namespace simulated_platform {

int Settings::watch(const char* key, vconf_callback_fn callback, void* user_data) {
    if (const int result = state_.result(Call::vconf_notify_key_changed)) {
        return result;
    }
    if (key == nullptr || callback == nullptr) {
        return -EINVAL;
    }
    watches_.push_back({key, callback, user_data});
    return 0;
}

int Settings::get_int(const char* key, int* value) const {
    if (const int result = state_.result(Call::vconf_get_int)) {
        return result;
    }
    if (key == nullptr || value == nullptr) {
        return -EINVAL;
    }
    const Setting* setting = state_.setting(key);
    if (setting == nullptr) {
        return -ENOENT;
    }
    if (setting->type != SETTINGS_TYPE_INT) {
        return -EINVAL;
    }
    *value = setting->integer;
    return 0;
}

void Settings::changed(const Change& change) {
    settings_keynode node{change.name, change.type, change.value};
    // By index: a callback may add watches, which are not called for this change.
    const std::size_t count = watches_.size();
    for (std::size_t index = 0; index < count; ++index) {
        const Watch watch = watches_[index];
        if (watch.key == change.name) {
            watch.callback(&node, watch.user_data);
        }
    }
}

}  // namespace simulated_platform
