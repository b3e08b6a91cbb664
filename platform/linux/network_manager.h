#pragma once

#include "glib_pointers.h"
#include "network_state.h"

#include <vector>

namespace linux_platform {

/**
 * Asks NetworkManager for what matters here, one object after the other. All of
 * its objects at once would be simpler, but a hundred access points among them
 * would cost some megabytes.
 *
 * A call waits without a limit: a service that hangs answers once it goes on,
 * and one that ends is reported by the bus. Does not start the service.
 */
class NetworkManager {
public:
    /** The well-known name, the root object and the interfaces. */
    static constexpr const char* SERVICE = "org.freedesktop.NetworkManager";
    static constexpr const char* MANAGER_PATH = "/org/freedesktop/NetworkManager";
    static constexpr const char* MANAGER = "org.freedesktop.NetworkManager";
    static constexpr const char* SETTINGS_PATH = "/org/freedesktop/NetworkManager/Settings";
    static constexpr const char* SETTINGS = "org.freedesktop.NetworkManager.Settings";
    static constexpr const char* CONNECTION = "org.freedesktop.NetworkManager.Settings.Connection";
    static constexpr const char* ACTIVE = "org.freedesktop.NetworkManager.Connection.Active";
    static constexpr const char* DEVICE = "org.freedesktop.NetworkManager.Device";
    static constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

    /** @param bus  borrowed for the object's life */
    explicit NetworkManager(GDBusConnection* bus) : bus_(bus) {}

    /**
     * Reads the active connections and the devices. One that goes away
     * meanwhile is left out; NetworkManager signals such a change.
     *
     * @return false, with the error set, when the service does not answer
     */
    bool read_objects(NetworkObjects* objects, ErrorPointer* error) const;

    /** Reads the profiles, in their stable order; without those this user may not see. */
    bool read_profiles(std::vector<Profile>* profiles, ErrorPointer* error) const;

private:
    VariantPointer call(const char* path, const char* interface, const char* method,
                        GVariant* arguments, const char* answer_type, ErrorPointer* error) const;
    VariantPointer get_all(const char* path, const char* interface, ErrorPointer* error) const;

    GDBusConnection* bus_;
};

}  // namespace linux_platform
