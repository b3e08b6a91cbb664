#include "network_clients.h"

#include <cstddef>
#include <utility>

namespace linux_platform {

namespace {

/** The number of a profile's last change; 0 while it is disconnected. */
uint64_t profile_change(const NetworkSnapshot& snapshot, const std::string& uuid) {
    const auto change = snapshot.profile_changes.find(uuid);
    return change == snapshot.profile_changes.end() ? 0 : change->second;
}

ProfileState profile_state(const NetworkSnapshot& snapshot, const std::string& uuid) {
    const auto state = snapshot.state.profile_states.find(uuid);
    return state == snapshot.state.profile_states.end() ? ProfileState::disconnected
                                                        : state->second;
}

template <typename Map>
std::vector<typename Map::key_type> keys(const Map& map) {
    std::vector<typename Map::key_type> all;
    all.reserve(map.size());
    for (const auto& entry : map) {
        all.push_back(entry.first);
    }
    return all;
}

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

connection_profile_iterator_h NetworkClients::create_iterator(
    const std::vector<Profile>& profiles) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Iterator iterator;
    for (const Profile& profile : profiles) {
        connection_profile_h handle = profile_handle(profile.uuid);
        profiles_[handle].type = profile.type;
        iterator.profiles.push_back(handle);
    }
    connection_profile_iterator_h handle = new_handle();
    iterators_[handle] = std::move(iterator);
    return handle;
}

connection_profile_h NetworkClients::profile_handle(const std::string& uuid) {
    for (const auto& [handle, profile] : profiles_) {
        if (profile.uuid == uuid) {
            return handle;
        }
    }
    connection_profile_h handle = new_handle();
    profiles_[handle].uuid = uuid;
    return handle;
}

connection_profile_h NetworkClients::peek(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Iterator* iterator = find(iterators_, handle);
    if (iterator == nullptr || iterator->next >= iterator->profiles.size()) {
        return nullptr;
    }
    return iterator->profiles[iterator->next];
}

void NetworkClients::advance(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Iterator* iterator = find(iterators_, handle)) {
        ++iterator->next;
    }
}

bool NetworkClients::profile_type(connection_profile_h handle, connection_profile_type_e* type) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const KnownProfile* profile = find(profiles_, handle);
    if (profile == nullptr) {
        return false;
    }
    *type = profile->type;
    return true;
}

bool NetworkClients::set_profile_callback(connection_profile_h handle,
                                          connection_profile_state_changed_cb callback,
                                          void* user_data) {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    const std::lock_guard<std::mutex> lock(mutex_);
    KnownProfile* profile = find(profiles_, handle);
    if (profile == nullptr) {
        return false;
    }
    profile->callback = callback;
    profile->user_data = user_data;
    profile->reported = snapshot ? profile_change(*snapshot, profile->uuid) : 0;
    return true;
}

// --- On the main loop's thread -------------------------------------------------

void NetworkClients::report() {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    std::vector<connection_h> clients;
    std::vector<connection_profile_h> profiles;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        clients = keys(clients_);
        profiles = keys(profiles_);
    }
    for (connection_h client : clients) {
        report_type(client, *snapshot);
    }
    for (connection_profile_h profile : profiles) {
        report_profile(profile, *snapshot);
    }
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

void NetworkClients::report_profile(connection_profile_h handle, const NetworkSnapshot& snapshot) {
    KnownProfile due;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        KnownProfile* profile = find(profiles_, handle);
        if (profile == nullptr || profile->callback == nullptr) {
            return;
        }
        const uint64_t change = profile_change(snapshot, profile->uuid);
        if (profile->reported == change) {
            return;
        }
        profile->reported = change;
        due = *profile;
    }
    due.callback(static_cast<connection_profile_state_e>(profile_state(snapshot, due.uuid)),
                 due.user_data);
}

}  // namespace linux_platform
