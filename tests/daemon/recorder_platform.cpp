#include "ADPaths.h"
#include "adagentd.h"
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

char connection_object;
char iterator_object;
/** Profile 0's handle: where it can be longer than an int, the daemon logs the lower half. */
constexpr auto first_profile = static_cast<uintptr_t>(0x5500000a10);

size_t profiles_taken = 0;
bool loader_failed = false;

/** Records a query and answers it. Writes the value also when it fails: the daemon must not use
 * it then. */
template <typename Type, typename Value>
int answer(const char* function, const std::string& argument, Type* place, Value value) {
    *place = static_cast<Type>(value);
    return call(function, argument);
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming)
extern "C" {

// The agent library's entry points that the daemon calls.

int ad_agent_init() { return call(__func__, gpadagentd ? "gpadagentd is set" : ""); }

int ad_agent_clear() { return call(__func__); }

int ad_agent_config_server(const char* path) { return call(__func__, path); }

int ad_agent_update(const char* version) {
    if (device.update_result != 0) {
        device.put(AD_DOWNLOADED_IMG_FILE);
    }
    call(__func__, version);
    return device.update_result;
}

int ad_agent_set_soversion(const char* version) { return call(__func__, version); }

int ad_agent_get_soversion(char* buffer) {
    const bool is_zero = std::all_of(buffer, buffer + 20, [](char c) { return c == 0; });
    device.so_version.copy(buffer, 20);
    return call(__func__, is_zero ? "20 zeros" : "a used buffer");
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
    void* const address = function ? function : &device;
    device.pointers[address] = symbol;
    return address;
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

/** Names a callback and its user data. */
static std::string watch(void* callback, void* user_data) {
    if (!device.controller) {
        device.controller = user_data;
        device.pointers[user_data] = "CONTROLLER";
    }
    return name(callback) + ", " + name(user_data);
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return call(__func__, key + (", " + watch(reinterpret_cast<void*>(callback), user_data)));
}

char* vconf_keynode_get_name(keynode_t* node) {
    return node->name.empty() ? nullptr : node->name.data();
}

int vconf_keynode_get_type(keynode_t* node) { return node->type; }

int vconf_keynode_get_int(keynode_t* node) { return node->value; }

int vconf_get_int(const char* key, int* value) {
    return answer(__func__, key, value, device.consent);
}

int connection_get_type(connection_h connection, connection_type_e* type) {
    return answer(__func__, name(connection), type, device.connection[0]);
}

int connection_get_wifi_state(connection_h connection, connection_wifi_state_e* state) {
    return answer(__func__, name(connection), state, device.connection[1]);
}

int connection_get_cellular_state(connection_h connection, connection_cellular_state_e* state) {
    return answer(__func__, name(connection), state, device.connection[1]);
}

int connection_get_ethernet_state(connection_h connection, connection_ethernet_state_e* state) {
    return answer(__func__, name(connection), state, device.connection[1]);
}

int connection_get_bt_state(connection_h connection, connection_bt_state_e* state) {
    return answer(__func__, name(connection), state, device.connection[1]);
}

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type) {
    return answer(__func__, name(profile), type, device.profiles.at(profiles_taken - 1));
}

int system_info_get_value_string(int key, char** value) {
    const int result = call(__func__, std::to_string(key));
    if (result == 0) {
        *value = strdup("T-1200.3");
        device.firmware_version = *value;
    }
    return result;
}

int connection_create(connection_h* connection) {
    const int result = call(__func__);
    if (result == 0) {
        *connection = &connection_object;
        device.pointers[&connection_object] = "connection";
    }
    return result;
}

int connection_destroy(connection_h handle) { return call(__func__, name(handle)); }

int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data) {
    return call(__func__,
                name(connection) + ", " + watch(reinterpret_cast<void*>(callback), user_data));
}

int connection_get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                    connection_profile_iterator_h* iterator) {
    profiles_taken = 0;
    device.pointers[&iterator_object] = "iterator";
    return answer(__func__, name(connection) + ", " + std::to_string(type), iterator,
                  &iterator_object);
}

bool connection_profile_iterator_has_next(connection_profile_iterator_h) {
    return profiles_taken < device.profiles.size();
}

int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                     connection_profile_h* profile) {
    const int result = call(__func__, name(iterator));
    if (result == 0) {
        *profile = reinterpret_cast<void*>(first_profile + profiles_taken);
        device.pointers[*profile] = "profile " + std::to_string(profiles_taken++);
    }
    return result;
}

int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data) {
    return call(__func__,
                name(profile) + ", " + watch(reinterpret_cast<void*>(callback), user_data));
}

int connection_profile_unset_state_changed_cb(connection_profile_h profile) {
    return call(__func__, name(profile));
}
}
// NOLINTEND(readability-identifier-naming)
