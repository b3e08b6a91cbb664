#include "settings_store.h"

#include "platform.h"

using simulated_platform::process_platform;

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return process_platform().settings().watch(key, callback, user_data);
}

char* vconf_keynode_get_name(keynode_t* node) { return node->name.data(); }

int vconf_keynode_get_type(keynode_t* node) { return node->type; }

int vconf_keynode_get_int(keynode_t* node) { return node->value; }

int vconf_get_int(const char* key, int* value) {
    return process_platform().settings().get_int(key, value);
}
