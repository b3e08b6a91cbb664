#include "network_connection.h"
#include "recorder.h"
#include "settings_store.h"
#include "system_information.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include <dlfcn.h>

using namespace daemon_tests;

namespace {

void* const CONNECTION = reinterpret_cast<void*>(0x1000);
void* const ITERATOR = reinterpret_cast<void*>(0x2000);
/** Profile 0's handle: longer than an int, of which the daemon shows the lower half. */
constexpr uintptr_t FIRST_PROFILE = 0x5500000a10;

size_t profiles_taken = 0;
bool loader_failed = false;

std::string name(void* handle) {
    if (!handle) return "null";
    if (handle == CONNECTION) return "connection";
    if (handle == ITERATOR) return "iterator";
    return "profile " + std::to_string(reinterpret_cast<uintptr_t>(handle) - FIRST_PROFILE);
}

/** Records a call and answers it, with the value when it succeeds. */
template <typename Type, typename Value>
int give(const char* function, const std::string& argument, Type* place, Value value) {
    const int result = call(function, argument);
    if (result == 0) *place = static_cast<Type>(value);
    return result;
}

}  // namespace

extern "C" {

// The agent library's entry points that the daemon calls.

int ad_agent_init() { return call(__func__); }

int ad_agent_clear() { return call(__func__); }

int ad_agent_config_server(const char* path) { return call(__func__, path); }

int ad_agent_update(const char* version) {
    if (device.update_result != 0) device.put("{downloaded}");
    call(__func__, version);
    return device.update_result;
}

int ad_agent_set_soversion(const char* version) { return call(__func__, version); }

int ad_agent_get_soversion(char* buffer) {
    const bool zero = std::all_of(buffer, buffer + 20, [](char c) { return c == 0; });
    device.so_version.copy(buffer, 19);
    return call(__func__, zero ? "into zeros" : "into a used buffer");
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void* __wrap_dlopen(const char* path, int flags) {
    record(std::string("dlopen ") + path + " " + std::to_string(flags));
    loader_failed = device.loader_errors.count(path) != 0;
    return device.not_found.count(path) != 0 ? nullptr : &device;
}

void* __real_dlsym(void* library, const char* symbol);
void* __wrap_dlsym(void* library, const char* symbol) {
    record(std::string("dlsym ") + symbol + (library == &device ? "" : " in another library"));
    loader_failed = device.loader_errors.count(symbol) != 0;
    void* const function = __real_dlsym(RTLD_DEFAULT, symbol);
    return function ? function : &device;
}

char* __wrap_dlerror() {
    static std::string message = "broken";
    record("dlerror");
    return loader_failed ? message.data() : nullptr;
}

int __wrap_dlclose(void* library) {
    record(library == &device ? "dlclose" : "dlclose of another library");
    return -1;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    device.watches[key] = {reinterpret_cast<void*>(callback), user_data};
    return call(__func__, key);
}

char* vconf_keynode_get_name(keynode_t* node) { return node->name.data(); }

int vconf_keynode_get_type(keynode_t* node) { return node->type; }

int vconf_keynode_get_int(keynode_t* node) { return node->value; }

/** A query, whose place is written only when it succeeds. */
#define QUERY(function, Subject, subject_name, Type, value)          \
    int function(Subject subject, Type* place) {                     \
        return give(#function, subject_name(subject), place, value); \
    }
QUERY(vconf_get_int, const char*, std::string, int, device.consent)
QUERY(connection_get_type, connection_h, name, connection_type_e, device.connection_type)
QUERY(connection_profile_iterator_next, connection_profile_iterator_h, name, connection_profile_h,
      reinterpret_cast<void*>(FIRST_PROFILE + profiles_taken++))
QUERY(connection_profile_get_type, connection_profile_h, name, connection_profile_type_e,
      device.profiles.at(profiles_taken - 1))

int system_info_get_value_string(int key, char** value) {
    const int result = call(__func__, std::to_string(key));
    if (result == 0) *value = strdup("T-1200.3");
    return result;
}

int connection_create(connection_h* connection) {
    return give(__func__, "called", connection, CONNECTION);
}

#define HANDLE_CALL(function) \
    int function(void* handle) { return call(#function, name(handle)); }
HANDLE_CALL(connection_destroy)
HANDLE_CALL(connection_profile_unset_state_changed_cb)

// A failing query may have written something; the daemon must not trust it.
#define STATE_QUERY(kind)                                                           \
    int connection_get_##kind##_state(connection_h connection,                      \
                                      connection_##kind##_state_e* state) {         \
        *state = static_cast<connection_##kind##_state_e>(device.connection_state); \
        return call("connection_get_" #kind "_state", name(connection));            \
    }
STATE_QUERY(wifi)
STATE_QUERY(cellular)
STATE_QUERY(ethernet)
STATE_QUERY(bt)

int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data) {
    device.watches[__func__] = {reinterpret_cast<void*>(callback), user_data};
    return call(__func__, name(connection));
}

int connection_get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                    connection_profile_iterator_h* iterator) {
    profiles_taken = 0;
    // Given also by a call that fails, so that the daemon's not releasing it shows.
    *iterator = ITERATOR;
    return call(__func__, name(connection) + " " + std::to_string(type));
}

bool connection_profile_iterator_has_next(connection_profile_iterator_h) {
    return profiles_taken < device.profiles.size();
}

int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data) {
    device.watches[__func__] = {reinterpret_cast<void*>(callback), user_data};
    return call(__func__, name(profile));
}
}
