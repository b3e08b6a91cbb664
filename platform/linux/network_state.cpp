#include "network_state.h"

#include "base/glib_owned.h"

#include <algorithm>
#include <cstring>
#include <tuple>

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
    connection_profile_type_e profile_type;
};

/** NetworkManager's connection types that the platform interface has a type for. */
constexpr ConnectionKind connection_kinds[] = {
    {"802-3-ethernet", CONNECTION_TYPE_ETHERNET, CONNECTION_PROFILE_TYPE_ETHERNET},
    {"802-11-wireless", CONNECTION_TYPE_WIFI, CONNECTION_PROFILE_TYPE_WIFI},
    {"gsm", CONNECTION_TYPE_CELLULAR, CONNECTION_PROFILE_TYPE_CELLULAR},
    {"cdma", CONNECTION_TYPE_CELLULAR, CONNECTION_PROFILE_TYPE_CELLULAR},
    {"bluetooth", CONNECTION_TYPE_BT, CONNECTION_PROFILE_TYPE_BT},
};

/** Any other type: a bridge, bond, VLAN, PPP over Ethernet or tunnel counts as Ethernet. */
constexpr ConnectionKind mapped_connection = {nullptr, CONNECTION_TYPE_ETHERNET,
                                              CONNECTION_PROFILE_TYPE_ETHERNET};

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

const ConnectionKind& connection_kind(const char* name) {
    for (const ConnectionKind& kind : connection_kinds) {
        if (strcmp(kind.name, name) == 0) {
            return kind;
        }
    }
    return mapped_connection;
}

int connected_state(connection_type_e type) {
    return type == CONNECTION_TYPE_CELLULAR ? static_cast<int>(CONNECTION_CELLULAR_STATE_CONNECTED)
                                            : static_cast<int>(CONNECTION_WIFI_STATE_CONNECTED);
}

ProfileState profile_state(const ActiveConnection& active, const NetworkObjects& objects,
                           bool is_online) {
    if (active.state == active_state_activated) {
        return is_online ? ProfileState::connected : ProfileState::configuring;
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
            state.type = connection_kind(active.type.c_str()).type;
        }
    }
    const bool is_online = state.type != CONNECTION_TYPE_DISCONNECTED;
    for (const ActiveConnection& active : objects.active) {
        const ProfileState of_active = profile_state(active, objects, is_online);
        // A profile that is activated again, or on two devices, has several active connections.
        if (of_active != ProfileState::disconnected) {
            ProfileState& known = state.profile_states[active.uuid];
            known = std::max(known, of_active);
        }
    }
    state.device_states = device_states(objects, state.type);
    return state;
}

bool is_activating(const NetworkObjects& objects) {
    return std::any_of(objects.active.begin(), objects.active.end(),
                       [](const auto& active) { return active.state == active_state_activating; });
}

std::optional<Profile> parse_profile(GVariant* settings) {
    const base::Owned<GVariant> connection(
        g_variant_lookup_value(settings, "connection", G_VARIANT_TYPE_VARDICT));
    if (!connection) {
        return std::nullopt;
    }
    const char* type = "";
    const char* uuid = "";
    const char* name = "";
    gint32 priority = 0;
    g_variant_lookup(connection.get(), "type", "&s", &type);
    g_variant_lookup(connection.get(), "uuid", "&s", &uuid);
    g_variant_lookup(connection.get(), "id", "&s", &name);
    g_variant_lookup(connection.get(), "autoconnect-priority", "i", &priority);
    if (*type == '\0' || *uuid == '\0' || strcmp(type, loopback_type) == 0) {
        return std::nullopt;
    }
    const ConnectionKind& kind = connection_kind(type);
    return Profile{uuid, name, kind.profile_type, kind.name != nullptr, priority};
}

void sort_profiles(std::vector<Profile>& profiles) {
    std::sort(profiles.begin(), profiles.end(), [](const Profile& a, const Profile& b) {
        return std::make_tuple(!a.is_native, -static_cast<int64_t>(a.priority), a.name, a.uuid) <
               std::make_tuple(!b.is_native, -static_cast<int64_t>(b.priority), b.name, b.uuid);
    });
}

}  // namespace linux_platform
