#pragma once

#include "base/glib_owned.h"
#include "network_state.h"

#include <optional>

#include <gio/gio.h>

namespace linux_platform {

/**
 * Queries NetworkManager for the objects that matter here, one by one. Fetching
 * all of its objects at once would be simpler, but the access points among them
 * can take megabytes.
 *
 * A call waits without a limit: a service that hangs replies once it continues,
 * and the bus reports one that dies. Does not start the service.
 */
class NetworkManager {
public:
    /** The well-known name, the root object and the interfaces. */
    static constexpr const char* service = "org.freedesktop.NetworkManager";
    static constexpr const char* manager_path = "/org/freedesktop/NetworkManager";
    static constexpr const char* manager = "org.freedesktop.NetworkManager";
    static constexpr const char* active = "org.freedesktop.NetworkManager.Connection.Active";
    static constexpr const char* device = "org.freedesktop.NetworkManager.Device";
    static constexpr const char* properties = "org.freedesktop.DBus.Properties";

    /** @param bus  borrowed for the object's life */
    explicit NetworkManager(GDBusConnection* bus) : bus_(bus) {}

    /**
     * Reads the active connections and the devices. One that disappears during
     * the reading is left out; NetworkManager signals such a change.
     *
     * @return nothing, with the error set, when the service does not reply
     */
    std::optional<NetworkObjects> read_objects(GError** error) const;

private:
    base::Owned<GVariant> get_all(const char* path, const char* interface, GError** error) const;

    GDBusConnection* bus_;
};

}  // namespace linux_platform
