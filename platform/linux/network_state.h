#pragma once

#include "network_connection.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <glib.h>

namespace linux_platform {

/** A profile's states, as numbered by connection_profile_state_e. */
enum class ProfileState {
    disconnected = 0,
    /** The device is being prepared: cable, radio, authentication. */
    associating = 1,
    /** IP configuration, or addresses without a default route on the device as a whole. */
    configuring = 2,
    connected = CONNECTION_PROFILE_STATE_CONNECTED
};

/** A per-type state below "connected": no usable device, or one without a connection. */
constexpr int device_unavailable = 0;
constexpr int device_disconnected = 1;

/** One of NetworkManager's connections. */
struct Profile {
    std::string uuid;
    std::string name;
    connection_profile_type_e type = CONNECTION_PROFILE_TYPE_ETHERNET;
    /** The profile's own type, rather than one that another type is mapped to. */
    bool is_native = true;
    /** NetworkManager's connection.autoconnect-priority; the highest comes first. */
    int priority = 0;
};

/** One of NetworkManager's active connections: a profile that is, or is becoming, active. */
struct ActiveConnection {
    std::string path;
    /** A connection type such as "802-3-ethernet". */
    std::string type;
    std::string uuid;
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
    /** By UUID: the states of the profiles that are not disconnected. */
    std::map<std::string, ProfileState> profile_states;
};

NetworkState network_state(const NetworkObjects& objects);

/** Whether any profile is being activated. */
bool is_activating(const NetworkObjects& objects);

/**
 * Reads a profile from the settings of a connection.
 *
 * @param settings  "a{sa{sv}}", the reply to a connection's GetSettings; borrowed
 * @return nothing for the loopback connection, or without a type or UUID
 */
std::optional<Profile> parse_profile(GVariant* settings);

/**
 * Sorts profiles into an order that depends neither on what is connected nor on
 * NetworkManager's restarts: native types before mapped ones, then by descending
 * autoconnect priority, then by name and UUID.
 */
void sort_profiles(std::vector<Profile>& profiles);

}  // namespace linux_platform
