/**
 * The platform's functions whose result the state file can set.
 */
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace simulated_platform {

enum class Call : std::size_t {
    dlog_print,
    connection_create,
    connection_destroy,
    connection_get_bt_state,
    connection_get_cellular_state,
    connection_get_ethernet_state,
    connection_get_profile_iterator,
    connection_get_type,
    connection_get_wifi_state,
    connection_profile_get_type,
    connection_profile_iterator_has_next,
    connection_profile_iterator_next,
    connection_profile_set_state_changed_cb,
    connection_profile_unset_state_changed_cb,
    connection_set_type_changed_cb,
    system_info_get_value_string,
    vconf_get_int,
    vconf_notify_key_changed,
};

constexpr std::size_t call_count = static_cast<std::size_t>(Call::vconf_notify_key_changed) + 1;

/** The result forced on each call, in the order of Call; 0 lets it do its work. */
using Results = std::array<int, call_count>;

/** The call of that function name; nothing when its result cannot be set. */
std::optional<Call> call_named(std::string_view name);

}  // namespace simulated_platform
