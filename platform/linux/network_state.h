#pragma once

#include "network_connection.h"

#include <map>
#include <string>
#include <vector>

namespace linux_platform {

/** The profile's states, as numbered by connection_profile_state_e. */
enum class ProfileState {
    disconnected = 0,
    /** A network device is being prepared: cable, radio, authentication. */
    associating = 1,
    /** IP configuration, or addresses without a default route. */
    configuring = 2,
    connected = CONNECTION_PROFILE_STATE_CONNECTED
};

/** A per-type state below "connected": no usable device, or one without a connection. */
constexpr int device_unavailable = 0;
constexpr int device_disconnected = 1;

/** One of NetworkManager's active connections: one that is, or is becoming, active. */
struct ActiveConnection {
    std::string path;
    /** A connection type such as "802-3-ethernet". */
    std::string type;
    /** NMActiveConnectionState. */
    unsigned state = 0;
    std::vector<std::string> devices;
};

/** One of NetworkManager's devices. */
struct Device {
    /** NMDeviceType and NMDeviceState. */
    unsigned type = 0;
    unsigned state = 0;
};

/** NetworkManager's objects that describe connections. */
struct NetworkObjects {
    /** The path of the active connection with the default route, "/" for none. */
    std::string primary;
    std::vector<ActiveConnection> active;
    /** By path. */
    std::map<std::string, Device> devices;
};

/** The same in terms of network_connection.h. */
struct NetworkState {
    /** The current connection's type; disconnected until the primary connection is activated. */
    connection_type_e type = CONNECTION_TYPE_DISCONNECTED;
    /** By connection type: the per-type states, in that type's own numbers. */
    std::map<connection_type_e, int> device_states;
    /** Connected exactly while the type is not disconnected; else the most advanced activation. */
    ProfileState profile_state = ProfileState::disconnected;
};

NetworkState network_state(const NetworkObjects& objects);

/** Whether any connection is being activated. */
bool is_activating(const NetworkObjects& objects);

/** The type of the profile that stands for a connection of that type; Ethernet while there is none.
 */
connection_profile_type_e profile_type(connection_type_e type);

}  // namespace linux_platform
