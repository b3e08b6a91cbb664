/**
 * The network-connection service.
 */
#pragma once

#include "change.h"
#include "network_connection.h"

#include <cstdint>
#include <string>
#include <vector>

namespace simulated_platform {

/**
 * Answers from a state, and keeps the clients, iterators and callbacks.
 *
 * Handles are numbers that are never reused, disguised as pointers: a stale or
 * foreign one is found to be unknown and is never dereferenced. The member
 * functions are those of network_connection.h; failures are negative errno(3)
 * values.
 */
class Network {
public:
    explicit Network(const State& state) : state_(state) {}

    int create(connection_h* connection);
    int destroy(connection_h connection);
    int get_type(connection_h connection, connection_type_e* type) const;
    int get_wifi_state(connection_h connection, connection_wifi_state_e* state) const;
    int get_cellular_state(connection_h connection, connection_cellular_state_e* state) const;
    int get_ethernet_state(connection_h connection, connection_ethernet_state_e* state) const;
    int get_bt_state(connection_h connection, connection_bt_state_e* state) const;
    int set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                            void* user_data);

    int get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                             connection_profile_iterator_h* iterator);
    bool iterator_has_next(connection_profile_iterator_h iterator) const;
    int iterator_next(connection_profile_iterator_h iterator, connection_profile_h* profile);

    int profile_get_type(connection_profile_h profile, connection_profile_type_e* type) const;
    int profile_set_state_changed_cb(connection_profile_h profile,
                                     connection_profile_state_changed_cb callback, void* user_data);
    int profile_unset_state_changed_cb(connection_profile_h profile);

    /** Runs the callbacks that are registered for the change. */
    void type_changed(const Change& change);
    void profile_changed(const Change& change);

private:
    struct Client {
        void* handle;
        connection_type_changed_cb callback;
        void* user_data;
    };
    struct Iterator {
        void* handle;
        void* client;
        std::vector<std::string> names;
        std::size_t next;
    };
    struct KnownProfile {
        void* handle;
        std::string name;
        connection_profile_state_changed_cb callback;
        void* user_data;
    };

    template <typename Value>
    int answer(Call call, connection_h connection, int number, Value* value) const;
    void* new_handle() { return reinterpret_cast<void*>(++last_handle_); }
    void* profile_handle(const std::string& name);

    const State& state_;
    std::uintptr_t last_handle_ = 0;
    std::vector<Client> clients_;
    std::vector<Iterator> iterators_;
    /** Every profile that an iterator ever returned. */
    std::vector<KnownProfile> profiles_;
};

}  // namespace simulated_platform
