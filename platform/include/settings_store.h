/**
 * The settings store: typed values under path-like keys such as
 * "db/menu_widget/language", with a callback for changes.
 *
 * Every function that returns a status returns 0 on success and another value
 * on failure. All callbacks run on the thread of GLib's default main context.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** The type code of an integer value; every other type has a code of its own. */
enum settings_type { SETTINGS_TYPE_INT = 41 };

/** A key with its value, as a change callback receives it. Opaque. */
typedef struct settings_keynode keynode_t;

/**
 * Called after the value of a watched key has changed.
 *
 * @param node       the key and its new value; valid during the call only
 * @param user_data  the pointer given at registration
 */
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

/**
 * Watches a key for the life of the process. The key need not exist yet.
 *
 * @param key        copied
 * @param callback   called on every later change
 * @param user_data  passed on unchanged; must outlive the process's main loop
 */
int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data);

/** The key's name, or null for a node without one. Owned by the node. */
char* vconf_keynode_get_name(keynode_t* node);

/** The value's type code; SETTINGS_TYPE_INT for an integer. */
int vconf_keynode_get_type(keynode_t* node);

/** The value of an integer node; 0 for a node of another type. */
int vconf_keynode_get_int(keynode_t* node);

/**
 * Reads an integer key.
 *
 * @param value  receives the value; unchanged on failure
 * @return 0, or another value when the key is missing or not an integer
 */
int vconf_get_int(const char* key, int* value);

#ifdef __cplusplus
}
#endif
