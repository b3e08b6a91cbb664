#include "network_clients.h"

#include <utility>

namespace linux_platform {

namespace {

/** The number of a profile's last change; 0 while it is disconnected. */
uint64_t profile_change(const NetworkSnapshot& snapshot, const std::string& uuid) {
    const auto change = snapshot.profile_changes.find(uuid);
    return change == snapshot.profile_changes.end() ? 0 : change->second;
}

template <typename Map>
std::vector<typename Map::key_type> keys(const Map& map) {
    std::vector<typename Map::key_type> all;
    for (const auto& entry : map) all.push_back(entry.first);
    return all;
}

template <typename Map>
typename Map::mapped_type::pointer find(const Map& map, void* handle) {
    const auto found = map.find(handle);
    return found == map.end() ? nullptr : found->second.get();
}

}  // namespace

NetworkClients& NetworkClients::instance() {
    static auto* clients = new NetworkClients();
    return *clients;
}

connection_h NetworkClients::create() {
    NetworkMonitor::instance().start([] { instance().report(); });
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto client = std::make_unique<Client>();
    connection_h handle = client.get();
    m_clients[handle] = std::move(client);
    return handle;
}

bool NetworkClients::destroy(void* handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clients.erase(handle) + m_iterators.erase(handle) > 0;
}

bool NetworkClients::is_client(connection_h client) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return find(m_clients, client) != nullptr;
}

bool NetworkClients::set_type_callback(connection_h handle, connection_type_changed_cb callback,
                                       void* user_data) {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    const std::lock_guard<std::mutex> lock(m_mutex);
    Client* client = find(m_clients, handle);
    if (!client) return false;
    client->callback = callback;
    client->user_data = user_data;
    client->reported = snapshot ? snapshot->type_change : 0;
    return true;
}

connection_profile_iterator_h NetworkClients::create_iterator(
    const std::vector<Profile>& profiles) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto iterator = std::make_unique<Iterator>();
    for (const Profile& profile : profiles) {
        connection_profile_h handle = nullptr;
        for (const auto& [known, of_known] : m_profiles) {
            if (of_known->uuid == profile.uuid) handle = known;
        }
        if (!handle) {
            auto made = std::make_unique<ProfileHandle>();
            made->uuid = profile.uuid;
            handle = made.get();
            m_profiles[handle] = std::move(made);
        }
        m_profiles[handle]->type = profile.type;
        iterator->profiles.push_back(handle);
    }
    connection_profile_iterator_h handle = iterator.get();
    m_iterators[handle] = std::move(iterator);
    return handle;
}

connection_profile_h NetworkClients::peek(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Iterator* iterator = find(m_iterators, handle);
    if (!iterator || iterator->next >= iterator->profiles.size()) return nullptr;
    return iterator->profiles[iterator->next];
}

void NetworkClients::advance(connection_profile_iterator_h handle) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (Iterator* iterator = find(m_iterators, handle)) ++iterator->next;
}

bool NetworkClients::profile_type(connection_profile_h handle, connection_profile_type_e* type) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const ProfileHandle* profile = find(m_profiles, handle);
    if (!profile) return false;
    *type = profile->type;
    return true;
}

bool NetworkClients::set_profile_callback(connection_profile_h handle,
                                          connection_profile_state_changed_cb callback,
                                          void* user_data) {
    const NetworkMonitor::Snapshot snapshot = NetworkMonitor::instance().snapshot();
    const std::lock_guard<std::mutex> lock(m_mutex);
    ProfileHandle* profile = find(m_profiles, handle);
    if (!profile) return false;
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
        const std::lock_guard<std::mutex> lock(m_mutex);
        clients = keys(m_clients);
        profiles = keys(m_profiles);
    }
    for (connection_h client : clients) report_type(client, *snapshot);
    for (connection_profile_h profile : profiles) report_profile(profile, *snapshot);
}

void NetworkClients::report_type(connection_h handle, const NetworkSnapshot& snapshot) {
    Client due;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        // Released by a callback before this one, perhaps.
        Client* client = find(m_clients, handle);
        if (!client || !client->callback || client->reported >= snapshot.type_change) return;
        client->reported = snapshot.type_change;
        due = *client;
    }
    due.callback(snapshot.state.type, due.user_data);
}

void NetworkClients::report_profile(connection_profile_h handle, const NetworkSnapshot& snapshot) {
    ProfileHandle due;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ProfileHandle* profile = find(m_profiles, handle);
        if (!profile || !profile->callback) return;
        const uint64_t change = profile_change(snapshot, profile->uuid);
        if (profile->reported == change) return;
        profile->reported = change;
        due = *profile;
    }
    const auto state = snapshot.state.profile_states.find(due.uuid);
    due.callback(
        static_cast<connection_profile_state_e>(
            state == snapshot.state.profile_states.end() ? PROFILE_DISCONNECTED : state->second),
        due.user_data);
}

}  // namespace linux_platform
