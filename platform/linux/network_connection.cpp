/**
 * The network-connection service on NetworkManager. Failures are negative
 * errno(3) values: EINVAL for a wrong handle or argument, ENOTCONN while
 * NetworkManager or its bus is missing, ETIMEDOUT before its first reply,
 * ENODATA at the end of an iteration.
 */
#include "network_connection.h"

#include "network_clients.h"
#include "network_monitor.h"
#include "network_state.h"
#include "service_manager.h"

#include <cerrno>

namespace linux_platform {

namespace {

NetworkClients& clients() { return NetworkClients::instance(); }

/** Gets the newest snapshot for a client. Returns 0, or the error code for its absence. */
int snapshot_for(connection_h connection, NetworkMonitor::Snapshot& snapshot) {
    if (!clients().is_client(connection)) {
        return -EINVAL;
    }
    snapshot = NetworkMonitor::instance().snapshot();
    if (!snapshot) {
        return -ETIMEDOUT;
    }
    return snapshot->available ? 0 : -ENOTCONN;
}

template <typename State>
int device_state(connection_h connection, connection_type_e type, State* state) {
    if (state == nullptr) {
        return -EINVAL;
    }
    NetworkMonitor::Snapshot snapshot;
    if (const int failure = snapshot_for(connection, snapshot)) {
        return failure;
    }
    *state = static_cast<State>(snapshot->state.device_states.at(type));
    return 0;
}

}  // namespace

}  // namespace linux_platform

using linux_platform::clients;
using linux_platform::device_state;
using linux_platform::NetworkMonitor;
using linux_platform::profile_type;
using linux_platform::snapshot_for;

extern "C" int connection_create(connection_h* connection) {
    if (connection == nullptr) {
        return -EINVAL;
    }
    *connection = clients().create();
    // The daemon does this once the agent library is initialised: it has started.
    linux_platform::notify_started();
    return 0;
}

extern "C" int connection_destroy(connection_h connection) {
    return clients().destroy(connection) ? 0 : -EINVAL;
}

extern "C" int connection_get_type(connection_h connection, connection_type_e* type) {
    if (type == nullptr) {
        return -EINVAL;
    }
    NetworkMonitor::Snapshot snapshot;
    if (const int failure = snapshot_for(connection, snapshot)) {
        return failure;
    }
    *type = snapshot->state.type;
    return 0;
}

extern "C" int connection_get_wifi_state(connection_h connection, connection_wifi_state_e* state) {
    return device_state(connection, CONNECTION_TYPE_WIFI, state);
}

extern "C" int connection_get_cellular_state(connection_h connection,
                                             connection_cellular_state_e* state) {
    return device_state(connection, CONNECTION_TYPE_CELLULAR, state);
}

extern "C" int connection_get_ethernet_state(connection_h connection,
                                             connection_ethernet_state_e* state) {
    return device_state(connection, CONNECTION_TYPE_ETHERNET, state);
}

extern "C" int connection_get_bt_state(connection_h connection, connection_bt_state_e* state) {
    return device_state(connection, CONNECTION_TYPE_BT, state);
}

extern "C" int connection_set_type_changed_cb(connection_h connection,
                                              connection_type_changed_cb callback,
                                              void* user_data) {
    if (callback == nullptr) {
        return -EINVAL;
    }
    return clients().set_type_callback(connection, callback, user_data) ? 0 : -EINVAL;
}

extern "C" int connection_get_profile_iterator(connection_h connection,
                                               connection_iterator_type_e type,
                                               connection_profile_iterator_h* iterator) {
    if (iterator == nullptr || type != CONNECTION_ITERATOR_TYPE_REGISTERED) {
        return -EINVAL;
    }
    if (!clients().is_client(connection)) {
        return -EINVAL;
    }
    *iterator = clients().create_iterator();
    return 0;
}

extern "C" bool connection_profile_iterator_has_next(connection_profile_iterator_h iterator) {
    return clients().peek(iterator) != nullptr;
}

extern "C" int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                                connection_profile_h* profile) {
    if (profile == nullptr) {
        return -EINVAL;
    }
    connection_profile_h next = clients().peek(iterator);
    if (next == nullptr) {
        return -ENODATA;
    }
    clients().advance(iterator);
    *profile = next;
    return 0;
}

extern "C" int connection_profile_get_type(connection_profile_h profile,
                                           connection_profile_type_e* type) {
    if (type == nullptr || !clients().is_profile(profile)) {
        return -EINVAL;
    }
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    *type = profile_type(snapshot ? snapshot->state.type : CONNECTION_TYPE_DISCONNECTED);
    return 0;
}

extern "C" int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                                       connection_profile_state_changed_cb callback,
                                                       void* user_data) {
    if (callback == nullptr) {
        return -EINVAL;
    }
    return clients().set_profile_callback(profile, callback, user_data) ? 0 : -EINVAL;
}

extern "C" int connection_profile_unset_state_changed_cb(connection_profile_h profile) {
    return clients().set_profile_callback(profile, nullptr, nullptr) ? 0 : -EINVAL;
}
