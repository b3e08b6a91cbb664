#include "calls.h"

#include <algorithm>

namespace simulated_platform {

namespace {

constexpr std::array<std::string_view, call_count> names{
    "__dlog_print",
    "connection_create",
    "connection_destroy",
    "connection_get_bt_state",
    "connection_get_cellular_state",
    "connection_get_ethernet_state",
    "connection_get_profile_iterator",
    "connection_get_type",
    "connection_get_wifi_state",
    "connection_profile_get_type",
    "connection_profile_iterator_has_next",
    "connection_profile_iterator_next",
    "connection_profile_set_state_changed_cb",
    "connection_profile_unset_state_changed_cb",
    "connection_set_type_changed_cb",
    "system_info_get_value_string",
    "vconf_get_int",
    "vconf_notify_key_changed",
};

}  // namespace

std::optional<Call> call_named(std::string_view name) {
    const auto found = std::find(names.begin(), names.end(), name);
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<Call>(found - names.begin());
}

}  // namespace simulated_platform
