#include "network_state.h"

#include <algorithm>

namespace linux_platform {

namespace {

constexpr const char* loopback_type = "loopback";

// From NetworkManager's nm-dbus-interface.h: NMActiveConnectionState and NMDeviceState.
constexpr unsigned active_state_activating = 1;
constexpr unsigned active_state_activated = 2;
constexpr unsigned device_state_disconnected = 30;
constexpr unsigned device_state_ip_config = 70;
constexpr unsigned device_state_activated = 100;

struct ConnectionKind {
    const char* name;
    connection_type_e type;
};

/** NetworkManager's connection types that are not Ethernet, nor counted as such. */
constexpr ConnectionKind connection_kinds[] = {
    {"802-11-wireless", CONNECTION_TYPE_WIFI},
    {"gsm", CONNECTION_TYPE_CELLULAR},
    {"cdma", CONNECTION_TYPE_CELLULAR},
    {"bluetooth", CONNECTION_TYPE_BT},
};

struct DeviceKind {
    /** NMDeviceType. */
    unsigned number;
    connection_type_e type;
};

/** NetworkManager's device types that have a per-type state. */
constexpr DeviceKind device_kinds[] = {
    {1, CONNECTION_TYPE_ETHERNET}, {2, CONNECTION_TYPE_WIFI},      {5, CONNECTION_TYPE_BT},
    {8, CONNECTION_TYPE_CELLULAR}, {20, CONNECTION_TYPE_ETHERNET},  // veth(4)
};

/** A bridge, bond, VLAN, PPP over Ethernet or tunnel counts as Ethernet. */
connection_type_e connection_type(const std::string& name) {
    for (const ConnectionKind& kind : connection_kinds) {
        if (name == kind.name) {
            return kind.type;
        }
    }
    return CONNECTION_TYPE_ETHERNET;
}

int connected_state(connection_type_e type) {
    return type == CONNECTION_TYPE_CELLULAR ? static_cast<int>(CONNECTION_CELLULAR_STATE_CONNECTED)
                                            : static_cast<int>(CONNECTION_WIFI_STATE_CONNECTED);
}

/** How far one active connection is, unless it is the primary one. */
ProfileState activation_state(const ActiveConnection& active, const NetworkObjects& objects) {
    if (active.type == loopback_type) {
        return ProfileState::disconnected;
    }
    if (active.state == active_state_activated) {
        return ProfileState::configuring;
    }
    if (active.state != active_state_activating) {
        return ProfileState::disconnected;
    }
    for (const std::string& path : active.devices) {
        const auto device = objects.devices.find(path);
        if (device != objects.devices.end() && device->second.state >= device_state_ip_config) {
            return ProfileState::configuring;
        }
    }
    return ProfileState::associating;
}

std::map<connection_type_e, int> device_states(const NetworkObjects& objects,
                                               connection_type_e current) {
    std::map<connection_type_e, int> states = {{CONNECTION_TYPE_WIFI, device_unavailable},
                                               {CONNECTION_TYPE_CELLULAR, device_unavailable},
                                               {CONNECTION_TYPE_ETHERNET, device_unavailable},
                                               {CONNECTION_TYPE_BT, device_unavailable}};
    for (const auto& [path, device] : objects.devices) {
        for (const DeviceKind& kind : device_kinds) {
            if (kind.number != device.type || device.state < device_state_disconnected) {
                continue;
            }
            const int state = device.state == device_state_activated ? connected_state(kind.type)
                                                                     : device_disconnected;
            states[kind.type] = std::max(states[kind.type], state);
        }
    }
    // The current connection's type counts as connected, even when it is only mapped to that type.
    if (current != CONNECTION_TYPE_DISCONNECTED) {
        states[current] = connected_state(current);
    }
    return states;
}

}  // namespace

NetworkState network_state(const NetworkObjects& objects) {
    NetworkState state;
    for (const ActiveConnection& active : objects.active) {
        // NetworkManager names the primary connection some time before it is activated.
        if (active.path == objects.primary && active.state == active_state_activated) {
            state.type = connection_type(active.type);
        }
        state.profile_state = std::max(state.profile_state, activation_state(active, objects));
    }
    if (state.type != CONNECTION_TYPE_DISCONNECTED) {
        state.profile_state = ProfileState::connected;
    }
    state.device_states = device_states(objects, state.type);
    return state;
}

bool is_activating(const NetworkObjects& objects) {
    return std::any_of(objects.active.begin(), objects.active.end(),
                       [](const auto& active) { return active.state == active_state_activating; });
}

connection_profile_type_e profile_type(connection_type_e type) {
    switch (type) {
        case CONNECTION_TYPE_WIFI:
            return CONNECTION_PROFILE_TYPE_WIFI;
        case CONNECTION_TYPE_CELLULAR:
            return CONNECTION_PROFILE_TYPE_CELLULAR;
        case CONNECTION_TYPE_BT:
            return CONNECTION_PROFILE_TYPE_BT;
        default:
            return CONNECTION_PROFILE_TYPE_ETHERNET;
    }
}

}  // namespace linux_platform
