#include "network_clients.h"

#include <cstddef>
#include <vector>

namespace linux_platform {

namespace {

/** The entry of a handle, or null. */
template <typename Map>
typename Map::mapped_type* find(Map& map, void* handle) {
    const auto found = map.find(handle);
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace

NetworkClients& NetworkClients::instance() {
    static auto* clients = new NetworkClients();
    return *clients;
}

connection_h NetworkClients::create() {
    NetworkMonitor::instance().start([] { instance().report(); });
    const std::lock_guard<std::mutex> lock(mutex_);
    connection_h handle = new_handle();
    clients_[handle] = {};
    return handle;
}

void* NetworkClients::new_handle() {
    // Spaced like pointers, for programs that print them.
    last_handle_ += sizeof(max_align_t);
    return reinterpret_cast<void*>(last_handle_);
}

bool NetworkClients::destroy(void* handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return clients_.erase(handle) + iterators_.erase(handle) > 0;
}

bool NetworkClients::is_client(connection_h client) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return find(clients_, client) != nullptr;
}

bool NetworkClients::set_type_callback(connection_h handle, connection_type_changed_cb callback,
                                       void* user_data) {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    const std::lock_guard<std::mutex> lock(mutex_);
    Client* client = find(clients_, handle);
    if (client == nullptr) {
        return false;
    }
    *client = {callback, user_data, snapshot ? snapshot->type_change : 0};
    return true;
}

connection_profile_iterator_h NetworkClients::create_iterator() {
    const std::lock_guard<std::mutex> lock(mutex_);
    connection_profile_iterator_h handle = new_handle();
    iterators_[handle] = false;
    return handle;
}

connection_profile_h NetworkClients::peek(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool* is_at_end = find(iterators_, handle);
    return is_at_end != nullptr && !*is_at_end ? profile_ : nullptr;
}

void NetworkClients::advance(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (bool* is_at_end = find(iterators_, handle)) {
        *is_at_end = true;
    }
}

bool NetworkClients::set_profile_callback(connection_profile_h profile,
                                          connection_profile_state_changed_cb callback,
                                          void* user_data) {
    if (!is_profile(profile)) {
        return false;
    }
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    const std::lock_guard<std::mutex> lock(mutex_);
    profile_watch_ = {callback, user_data, snapshot ? snapshot->profile_change : 0};
    return true;
}

// --- On the main loop's thread -------------------------------------------------

void NetworkClients::report() {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    std::vector<connection_h> clients;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        clients.reserve(clients_.size());
        for (const auto& entry : clients_) {
            clients.push_back(entry.first);
        }
    }
    for (connection_h client : clients) {
        report_type(client, *snapshot);
    }
    report_profile(*snapshot);
}

void NetworkClients::report_type(connection_h handle, const NetworkSnapshot& snapshot) {
    Client due;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        // An earlier callback of this report may have released it.
        Client* client = find(clients_, handle);
        if (client == nullptr || client->callback == nullptr ||
            client->reported >= snapshot.type_change) {
            return;
        }
        client->reported = snapshot.type_change;
        due = *client;
    }
    due.callback(snapshot.state.type, due.user_data);
}

void NetworkClients::report_profile(const NetworkSnapshot& snapshot) {
    ProfileWatch due;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (profile_watch_.callback == nullptr ||
            profile_watch_.reported >= snapshot.profile_change) {
            return;
        }
        profile_watch_.reported = snapshot.profile_change;
        due = profile_watch_;
    }
    due.callback(static_cast<connection_profile_state_e>(snapshot.state.profile_state),
                 due.user_data);
}

}  // namespace linux_platform
