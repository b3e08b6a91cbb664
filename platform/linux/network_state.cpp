#include "network_state.h"

#include "glib_pointers.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace linux_platform {

namespace {

constexpr const char* LOOPBACK = "loopback";

// NetworkManager's numbers, from its nm-dbus-types.
enum { ACTIVE_STATE_ACTIVATING = 1, ACTIVE_STATE_ACTIVATED = 2 };
enum { STATE_DISCONNECTED = 30, STATE_IP_CONFIG = 70, STATE_ACTIVATED = 100 };

struct ConnectionKind {
    const char* name;
    connection_type_e type;
    connection_profile_type_e profile_type;
};

/** NetworkManager's connection types that are one of the platform's. */
constexpr ConnectionKind CONNECTION_KINDS[] = {
    {"802-3-ethernet", CONNECTION_TYPE_ETHERNET, CONNECTION_PROFILE_TYPE_ETHERNET},
    {"802-11-wireless", CONNECTION_TYPE_WIFI, CONNECTION_PROFILE_TYPE_WIFI},
    {"gsm", CONNECTION_TYPE_CELLULAR, CONNECTION_PROFILE_TYPE_CELLULAR},
    {"cdma", CONNECTION_TYPE_CELLULAR, CONNECTION_PROFILE_TYPE_CELLULAR},
    {"bluetooth", CONNECTION_TYPE_BT, CONNECTION_PROFILE_TYPE_BT},
};

/**
 * Any other: a bridge, a bond, a VLAN, PPP over Ethernet, a tunnel. What leads
 * out of the device without a radio that we know of counts as a wire.
 */
constexpr ConnectionKind OTHER_CONNECTION = {nullptr, CONNECTION_TYPE_ETHERNET,
                                             CONNECTION_PROFILE_TYPE_ETHERNET};

struct DeviceKind {
    unsigned number;
    connection_type_e type;
};

/** NetworkManager's device types that have a per-type state. */
constexpr DeviceKind DEVICE_KINDS[] = {
    {1, CONNECTION_TYPE_ETHERNET}, {2, CONNECTION_TYPE_WIFI},      {5, CONNECTION_TYPE_BT},
    {8, CONNECTION_TYPE_CELLULAR}, {20, CONNECTION_TYPE_ETHERNET},  // a virtual wire between two
                                                                    // network namespaces
};

const ConnectionKind& connection_kind(const char* name) {
    for (const ConnectionKind& kind : CONNECTION_KINDS) {
        if (strcmp(kind.name, name) == 0) return kind;
    }
    return OTHER_CONNECTION;
}

int connected_state(connection_type_e type) {
    return type == CONNECTION_TYPE_CELLULAR ? static_cast<int>(CONNECTION_CELLULAR_STATE_CONNECTED)
                                            : static_cast<int>(CONNECTION_WIFI_STATE_CONNECTED);
}

int profile_state(const ActiveConnection& active, const NetworkObjects& objects, bool way_out) {
    if (active.state == ACTIVE_STATE_ACTIVATED) {
        return way_out ? PROFILE_CONNECTED : PROFILE_CONFIGURING;
    }
    if (active.state != ACTIVE_STATE_ACTIVATING) return PROFILE_DISCONNECTED;
    for (const std::string& path : active.devices) {
        const auto device = objects.devices.find(path);
        if (device != objects.devices.end() && device->second.state >= STATE_IP_CONFIG) {
            return PROFILE_CONFIGURING;
        }
    }
    return PROFILE_ASSOCIATING;
}

std::map<connection_type_e, int> device_states(const NetworkObjects& objects,
                                               connection_type_e current) {
    std::map<connection_type_e, int> states = {{CONNECTION_TYPE_WIFI, DEVICE_STATE_NONE},
                                               {CONNECTION_TYPE_CELLULAR, DEVICE_STATE_NONE},
                                               {CONNECTION_TYPE_ETHERNET, DEVICE_STATE_NONE},
                                               {CONNECTION_TYPE_BT, DEVICE_STATE_NONE}};
    for (const auto& [path, device] : objects.devices) {
        for (const DeviceKind& kind : DEVICE_KINDS) {
            if (kind.number != device.type || device.state < STATE_DISCONNECTED) continue;
            const int state = device.state == STATE_ACTIVATED
                                  ? connected_state(kind.type)
                                  : static_cast<int>(DEVICE_STATE_DISCONNECTED);
            states[kind.type] = std::max(states[kind.type], state);
        }
    }
    // What the connection runs over is connected, also when it is only mapped to that type.
    if (current != CONNECTION_TYPE_DISCONNECTED) states[current] = connected_state(current);
    return states;
}

}  // namespace

NetworkState network_state(const NetworkObjects& objects) {
    NetworkState state;
    for (const ActiveConnection& active : objects.active) {
        // NetworkManager names the primary connection some time before it is ready.
        if (active.path == objects.primary && active.state == ACTIVE_STATE_ACTIVATED) {
            state.type = connection_kind(active.type.c_str()).type;
        }
    }
    const bool way_out = state.type != CONNECTION_TYPE_DISCONNECTED;
    for (const ActiveConnection& active : objects.active) {
        const int of_active = profile_state(active, objects, way_out);
        // Activated anew, or on two devices, a profile has several of them.
        if (of_active != PROFILE_DISCONNECTED) {
            int& known = state.profile_states[active.uuid];
            known = std::max(known, of_active);
        }
    }
    state.device_states = device_states(objects, state.type);
    return state;
}

bool is_activating(const NetworkObjects& objects) {
    return std::any_of(objects.active.begin(), objects.active.end(),
                       [](const auto& active) { return active.state == ACTIVE_STATE_ACTIVATING; });
}

bool read_profile(GVariant* settings, Profile* profile) {
    const VariantPointer connection(
        g_variant_lookup_value(settings, "connection", G_VARIANT_TYPE_VARDICT));
    if (!connection) return false;
    const char* type = "";
    const char* uuid = "";
    const char* name = "";
    g_variant_lookup(connection.get(), "type", "&s", &type);
    g_variant_lookup(connection.get(), "uuid", "&s", &uuid);
    g_variant_lookup(connection.get(), "id", "&s", &name);
    if (!*type || !*uuid || strcmp(type, LOOPBACK) == 0) return false;
    profile->uuid = uuid;
    profile->name = name;
    const ConnectionKind& kind = connection_kind(type);
    profile->type = kind.profile_type;
    profile->hardware = kind.name != nullptr;
    gint32 priority = 0;
    g_variant_lookup(connection.get(), "autoconnect-priority", "i", &priority);
    profile->priority = priority;
    return true;
}

void sort_profiles(std::vector<Profile>* profiles) {
    std::sort(profiles->begin(), profiles->end(), [](const Profile& a, const Profile& b) {
        return std::make_tuple(!a.hardware, -static_cast<int64_t>(a.priority), a.name, a.uuid) <
               std::make_tuple(!b.hardware, -static_cast<int64_t>(b.priority), b.name, b.uuid);
    });
}

}  // namespace linux_platform
