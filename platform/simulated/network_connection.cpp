#include "network_connection.h"

#include "platform.h"

namespace {

simulated_platform::Network& network() { return simulated_platform::process_platform().network(); }

}  // namespace

int connection_create(connection_h* connection) { return network().create(connection); }

int connection_destroy(connection_h connection) { return network().destroy(connection); }

int connection_get_type(connection_h connection, connection_type_e* type) {
    return network().get_type(connection, type);
}

int connection_get_wifi_state(connection_h connection, connection_wifi_state_e* state) {
    return network().get_wifi_state(connection, state);
}

int connection_get_cellular_state(connection_h connection, connection_cellular_state_e* state) {
    return network().get_cellular_state(connection, state);
}

int connection_get_ethernet_state(connection_h connection, connection_ethernet_state_e* state) {
    return network().get_ethernet_state(connection, state);
}

int connection_get_bt_state(connection_h connection, connection_bt_state_e* state) {
    return network().get_bt_state(connection, state);
}

int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data) {
    return network().set_type_changed_cb(connection, callback, user_data);
}

int connection_get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                    connection_profile_iterator_h* iterator) {
    return network().get_profile_iterator(connection, type, iterator);
}

bool connection_profile_iterator_has_next(connection_profile_iterator_h iterator) {
    return network().iterator_has_next(iterator);
}

int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                     connection_profile_h* profile) {
    return network().iterator_next(iterator, profile);
}

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type) {
    return network().profile_get_type(profile, type);
}

int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data) {
    return network().profile_set_state_changed_cb(profile, callback, user_data);
}

int connection_profile_unset_state_changed_cb(connection_profile_h profile) {
    return network().profile_unset_state_changed_cb(profile);
}
