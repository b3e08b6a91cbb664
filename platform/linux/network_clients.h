#pragma once

#include "network_connection.h"
#include "network_monitor.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace linux_platform {

/**
 * The handles of clients, iterators and profiles, with their callbacks.
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

    connection_profile_iterator_h create_iterator(const std::vector<Profile>& profiles);
    /** The next profile; null at the end, and for a wrong handle. */
    connection_profile_h peek(connection_profile_iterator_h iterator);
    void advance(connection_profile_iterator_h iterator);

    bool profile_type(connection_profile_h profile, connection_profile_type_e* type);
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

    struct Iterator {
        std::vector<connection_profile_h> profiles;
        size_t next = 0;
    };

    /** A profile by its UUID, which survives NetworkManager's restarts. */
    struct KnownProfile {
        std::string uuid;
        connection_profile_type_e type = CONNECTION_PROFILE_TYPE_ETHERNET;
        connection_profile_state_changed_cb callback = nullptr;
        void* user_data = nullptr;
        uint64_t reported = 0;
    };

    void* new_handle();
    connection_profile_h profile_handle(const std::string& uuid);
    void report();
    void report_type(connection_h handle, const NetworkSnapshot& snapshot);
    void report_profile(connection_profile_h handle, const NetworkSnapshot& snapshot);

    std::mutex mutex_;
    uintptr_t last_handle_ = 0;
    std::map<connection_h, Client> clients_;
    std::map<connection_profile_iterator_h, Iterator> iterators_;
    /** Never shrinks: a profile's handle is never released. */
    std::map<connection_profile_h, KnownProfile> profiles_;
};

}  // namespace linux_platform
