#pragma once

#include "network_connection.h"
#include "network_monitor.h"

#include <cstdint>
#include <map>
#include <mutex>

namespace linux_platform {

/**
 * The handles of clients, of iterators and of the profile, with their callbacks.
 *
 * One profile is registered: the device's connection, whichever of
 * NetworkManager's connections that is at the time. A caller that chooses a
 * profile once, as the daemon does, thereby also notices the connections that
 * are created after its choice. The profile does not depend on NetworkManager.
 *
 * Handles are numbers that are never reused, so that a released or foreign one
 * is recognised and refused. Functions may be called from any thread; callbacks
 * run on the main loop's thread, with no lock held.
 */
class NetworkClients {
public:
    /** The process's one registry; it lives as long as the process. */
    static NetworkClients& instance();

    /** Makes a client; the first one starts the monitor. */
    connection_h create();
    /** Releases a client or an iterator; false for any other handle. */
    bool destroy(void* handle);
    bool is_client(connection_h client);

    bool set_type_callback(connection_h client, connection_type_changed_cb callback,
                           void* user_data);

    connection_profile_iterator_h create_iterator();
    /** The next profile; null at the end, and for a wrong handle. */
    connection_profile_h peek(connection_profile_iterator_h iterator);
    void advance(connection_profile_iterator_h iterator);

    bool is_profile(connection_profile_h profile) const { return profile == profile_; }
    /** A null callback ends the reports. */
    bool set_profile_callback(connection_profile_h profile,
                              connection_profile_state_changed_cb callback, void* user_data);

private:
    struct Client {
        connection_type_changed_cb callback = nullptr;
        void* user_data = nullptr;
        /** The number of the last change that the callback knows of. */
        uint64_t reported = 0;
    };

    /** Who watches the profile, in the same terms. */
    struct ProfileWatch {
        connection_profile_state_changed_cb callback = nullptr;
        void* user_data = nullptr;
        uint64_t reported = 0;
    };

    void* new_handle();
    void report();
    void report_type(connection_h handle, const NetworkSnapshot& snapshot);
    void report_profile(const NetworkSnapshot& snapshot);

    std::mutex mutex_;
    uintptr_t last_handle_ = 0;
    std::map<connection_h, Client> clients_;
    /** Whether each iterator is at its end. */
    std::map<connection_profile_iterator_h, bool> iterators_;
    /** Never released. */
    void* const profile_ = new_handle();
    ProfileWatch profile_watch_;
};

}  // namespace linux_platform
