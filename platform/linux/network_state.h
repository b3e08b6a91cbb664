#pragma once

#include "network_connection.h"

#include <map>
#include <string>
#include <vector>

#include <glib.h>

namespace linux_platform {

/** A profile's states between "disconnected" and "connected". */
enum ProfileState {
    PROFILE_DISCONNECTED = 0,
    /** The device is being prepared: cable, radio, authentication. */
    PROFILE_ASSOCIATING = 1,
    /** It is getting its addresses, or has them while nothing leads out of the device. */
    PROFILE_CONFIGURING = 2,
    PROFILE_CONNECTED = CONNECTION_PROFILE_STATE_CONNECTED
};

/** A per-type state that is not "connected": no usable device, or one without a connection. */
enum { DEVICE_STATE_NONE = 0, DEVICE_STATE_DISCONNECTED = 1 };

/** One of NetworkManager's connections. */
struct Profile {
    std::string uuid;
    std::string name;
    connection_profile_type_e type = CONNECTION_PROFILE_TYPE_ETHERNET;
    /** Runs over hardware of its type, rather than over something mapped to it. */
    bool hardware = true;
    /** NetworkManager's connection.autoconnect-priority: the higher, the earlier. */
    int priority = 0;
};

/** One of NetworkManager's active connections: a profile on its way to a device, or there. */
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

/** NetworkManager's objects that say something about connections. */
struct NetworkObjects {
    /** The path of the active connection that leads out of the device, "/" for none. */
    std::string primary;
    std::vector<ActiveConnection> active;
    /** By path. */
    std::map<std::string, Device> devices;
};

/** What they say, in the terms of this platform. */
struct NetworkState {
    /** The device's connection; disconnected until the primary one is ready for use. */
    connection_type_e type = CONNECTION_TYPE_DISCONNECTED;
    /** By connection type: the per-type states, in that type's own numbers. */
    std::map<connection_type_e, int> device_states;
    /** By UUID: the states of the profiles that are not disconnected. */
    std::map<std::string, int> profile_states;
};

NetworkState network_state(const NetworkObjects& objects);

/** Whether a profile is on its way to being connected. */
bool is_activating(const NetworkObjects& objects);

/**
 * A profile from the settings of a connection.
 *
 * @param settings  "a{sa{sv}}", the answer of a connection's GetSettings; borrowed
 * @param profile   receives the profile
 * @return false for the loopback connection, and for one without type or UUID
 */
bool read_profile(GVariant* settings, Profile* profile);

/**
 * Puts profiles into an order that does not change with what is connected or
 * with NetworkManager's restarts: hardware before mapped ones, a higher
 * autoconnect priority first, then by name and UUID.
 */
void sort_profiles(std::vector<Profile>* profiles);

}  // namespace linux_platform
