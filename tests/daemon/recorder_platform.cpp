#include "network_connection.h"
#include "recorder.h"
#include "settings_store.h"
#include "system_information.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

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

template <typename State>
int get_state(const char* function, connection_h connection, State* state) {
    // A failing call may have written something; the daemon must not trust it.
    *state = static_cast<State>(device.connection_state);
    return call(function, name(connection));
}

template <typename Function>
void* address(Function function) {
    return reinterpret_cast<void*>(+function);
}

/** The agent library: a function for each entry point that the daemon calls. */
void* entry_point(const std::string& symbol) {
    static const std::map<std::string, void*> functions = {
        {"ad_agent_init", address([] { return call("ad_agent_init"); })},
        {"ad_agent_clear", address([] { return call("ad_agent_clear"); })},
        {"ad_agent_config_server",
         address([](const char* path) { return call("ad_agent_config_server", path); })},
        {"ad_agent_update", address([](const char* version) {
             if (device.update_result != 0) device.put("{downloaded}");
             call("ad_agent_update", version);
             return device.update_result;
         })},
        {"ad_agent_set_soversion",
         address([](const char* version) { return call("ad_agent_set_soversion", version); })},
        {"ad_agent_get_soversion", address([](char* buffer) {
             const bool zero = std::all_of(buffer, buffer + 20, [](char c) { return c == 0; });
             memcpy(buffer, device.so_version.c_str(), device.so_version.size() + 1);
             return call("ad_agent_get_soversion", zero ? "into zeros" : "into a used buffer");
         })},
    };
    const auto function = functions.find(symbol);
    return function == functions.end() ? &device : function->second;
}

}  // namespace

extern "C" {

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    if (device.throws_on_watch) throw std::bad_alloc();
    device.watches[key] = {callback, user_data};
    return call(__func__, key);
}

char* vconf_keynode_get_name(keynode_t* node) { return node->name.data(); }

int vconf_keynode_get_type(keynode_t* node) { return node->type; }

int vconf_keynode_get_int(keynode_t* node) { return node->value; }

int vconf_get_int(const char* key, int* value) {
    const int result = call(__func__, std::string(key) + (*value == 0 ? "" : " into a used value"));
    if (result == 0) *value = device.consent;
    return result;
}

int system_info_get_value_string(int key, char** value) {
    const int result = call(__func__, std::to_string(key));
    if (result == 0 && device.firmware) *value = strdup(device.firmware->c_str());
    return result;
}

int connection_create(connection_h* connection) {
    const int result = call(__func__);
    if (result == 0) *connection = CONNECTION;
    return result;
}

int connection_destroy(connection_h connection) { return call(__func__, name(connection)); }

int connection_get_type(connection_h connection, connection_type_e* type) {
    const int result = call(__func__, name(connection));
    if (result == 0) *type = static_cast<connection_type_e>(device.connection_type);
    return result;
}

#define STATE_QUERY(kind)                                                      \
    int connection_get_##kind##_state(connection_h connection,                 \
                                      connection_##kind##_state_e* state) {    \
        return get_state("connection_get_" #kind "_state", connection, state); \
    }
STATE_QUERY(wifi)
STATE_QUERY(cellular)
STATE_QUERY(ethernet)
STATE_QUERY(bt)

int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data) {
    device.type_watch = {callback, user_data};
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

int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                     connection_profile_h* profile) {
    const int result = call(__func__, name(iterator));
    if (result == 0) *profile = reinterpret_cast<void*>(FIRST_PROFILE + profiles_taken++);
    return result;
}

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type) {
    const size_t index = reinterpret_cast<uintptr_t>(profile) - FIRST_PROFILE;
    const int result = call(__func__, name(profile));
    if (result == 0) *type = static_cast<connection_profile_type_e>(device.profiles.at(index));
    return result;
}

int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data) {
    device.profile_watch = {callback, user_data};
    return call(__func__, name(profile));
}

int connection_profile_unset_state_changed_cb(connection_profile_h profile) {
    return call(__func__, name(profile));
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void* __wrap_dlopen(const char* path, int flags) {
    record(std::string("dlopen ") + path + " " + std::to_string(flags));
    loader_failed = device.loader_errors.count(path) != 0;
    return device.not_found.count(path) != 0 ? nullptr : &device;
}

void* __wrap_dlsym(void* library, const char* symbol) {
    record(std::string("dlsym ") + symbol + (library == &device ? "" : " in another library"));
    loader_failed = device.loader_errors.count(symbol) != 0;
    return entry_point(symbol);
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
}
