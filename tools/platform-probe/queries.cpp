#include "queries.h"

#include "settings_store.h"
#include "system_information.h"

#include <algorithm>
#include <cstdlib>

namespace platform_probe {

namespace {

constexpr const char* type_names[] = {"disconnected", "wifi", "cellular", "ethernet", "bluetooth"};
constexpr const char* profile_type_names[] = {"cellular", "wifi", "ethernet", "bluetooth"};

/** The number, and its name if it has one. */
template <std::size_t size>  // NOLINT(readability-identifier-naming): a constant
std::string with_name(int number, const char* const (&names)[size]) {
    std::string text = std::to_string(number);
    if (number >= 0 && static_cast<std::size_t>(number) < size) {
        text.append(" ").append(names[number]);
    }
    return text;
}

std::string with_connected(int state, int connected) {
    return std::to_string(state) + (state == connected ? " connected" : "");
}

/** A failed call, with a remark if it broke its promise to leave the output alone. */
template <typename Type>
std::string describe_failure(int result, const OutParam<Type>& output) {
    return describe_result(result) + (output.is_unchanged() ? "" : ", but changed the output");
}

/** @tparam function  a platform function that gets a state of its own type */
template <typename State, int (*function)(connection_h, State*)>  // NOLINT: a constant
int get_state(connection_h connection, int* state) {
    if (state == nullptr) {
        return function(connection, nullptr);
    }
    OutParam<State> output;
    const int result = function(connection, output.get());
    if (!output.is_unchanged()) {
        *state = static_cast<int>(output.value());
    }
    return result;
}

}  // namespace

const std::array<StateQuery, 4> state_queries{
    {{"wifi", "connection_get_wifi_state", CONNECTION_TYPE_WIFI, CONNECTION_WIFI_STATE_CONNECTED,
      get_state<connection_wifi_state_e, connection_get_wifi_state>},
     {"cellular", "connection_get_cellular_state", CONNECTION_TYPE_CELLULAR,
      CONNECTION_CELLULAR_STATE_CONNECTED,
      get_state<connection_cellular_state_e, connection_get_cellular_state>},
     {"ethernet", "connection_get_ethernet_state", CONNECTION_TYPE_ETHERNET,
      CONNECTION_ETHERNET_STATE_CONNECTED,
      get_state<connection_ethernet_state_e, connection_get_ethernet_state>},
     {"bluetooth", "connection_get_bt_state", CONNECTION_TYPE_BT, CONNECTION_BT_STATE_CONNECTED,
      get_state<connection_bt_state_e, connection_get_bt_state>}}};

std::string describe_result(int result) {
    return result == 0 ? "ok" : "failed " + std::to_string(result);
}

std::string describe(connection_type_e type) {
    return with_name(static_cast<int>(type), type_names);
}

std::string describe(connection_profile_state_e state) {
    return with_connected(static_cast<int>(state), CONNECTION_PROFILE_STATE_CONNECTED);
}

std::string query_firmware() {
    OutParam<char*> version;
    const int result =
        system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, version.get());
    if (result != 0) {
        return describe_failure(result, version);
    }
    std::string text = version.value();
    free(version.value());
    return text;
}

std::string query_setting(const std::string& key) {
    OutParam<int> value;
    const int result = vconf_get_int(key.c_str(), value.get());
    return result != 0 ? describe_failure(result, value) : std::to_string(value.value());
}

std::string query_type(connection_h connection) {
    OutParam<connection_type_e> type;
    const int result = connection_get_type(connection, type.get());
    return result != 0 ? describe_failure(result, type) : describe(type.value());
}

std::string query_state(connection_h connection, const StateQuery& query) {
    OutParam<int> state;
    const int result = query.get(connection, state.get());
    return result != 0 ? describe_failure(result, state)
                       : with_connected(state.value(), query.connected);
}

std::string query_profiles(connection_h connection, std::vector<connection_profile_h>& known) {
    OutParam<connection_profile_iterator_h> iterator;
    const int result = connection_get_profile_iterator(
        connection, CONNECTION_ITERATOR_TYPE_REGISTERED, iterator.get());
    if (result != 0) {
        return describe_failure(result, iterator);
    }
    std::string list;
    while (connection_profile_iterator_has_next(iterator.value())) {
        OutParam<connection_profile_h> profile;
        OutParam<connection_profile_type_e> type;
        int failure = connection_profile_iterator_next(iterator.value(), profile.get());
        if (failure == 0) {
            failure = connection_profile_get_type(profile.value(), type.get());
        }
        if (failure != 0) {
            list.append(list.empty() ? "" : ", ").append(describe_result(failure));
            break;
        }
        const auto found = std::find(known.begin(), known.end(), profile.value());
        const auto number = found - known.begin();
        if (found == known.end()) {
            known.push_back(profile.value());
        }
        list.append(list.empty() ? "" : ", ").append(std::to_string(number)).append(": ");
        list.append(with_name(static_cast<int>(type.value()), profile_type_names));
    }
    connection_destroy(iterator.value());
    return list.empty() ? "none" : list;
}

}  // namespace platform_probe
