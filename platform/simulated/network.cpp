#include "network.h"

#include <algorithm>
#include <cerrno>

namespace simulated_platform {

namespace {

/** The entry with that handle, or null. */
template <typename Entries>
auto find_handle(Entries& entries, const void* handle) -> decltype(&entries[0]) {
    for (auto& entry : entries) {
        if (entry.handle == handle) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

int Network::create(connection_h* connection) {
    if (const int result = state_.result(Call::connection_create)) {
        return result;
    }
    if (connection == nullptr) {
        return -EINVAL;
    }
    clients_.push_back({new_handle(), nullptr, nullptr});
    *connection = clients_.back().handle;
    return 0;
}

int Network::destroy(connection_h connection) {
    if (const int result = state_.result(Call::connection_destroy)) {
        return result;
    }
    const auto remove_iterators = [this](auto condition) {
        const auto kept = std::remove_if(iterators_.begin(), iterators_.end(), condition);
        const bool is_any_removed = kept != iterators_.end();
        iterators_.erase(kept, iterators_.end());
        return is_any_removed;
    };
    if (const Client* client = find_handle(clients_, connection)) {
        remove_iterators([connection](const Iterator& it) { return it.client == connection; });
        clients_.erase(clients_.begin() + (client - clients_.data()));
        return 0;
    }
    return remove_iterators([connection](const Iterator& it) { return it.handle == connection; })
               ? 0
               : -EINVAL;
}

template <typename Value>
int Network::answer(Call call, connection_h connection, int number, Value* value) const {
    if (const int result = state_.result(call)) {
        return result;
    }
    if (value == nullptr || find_handle(clients_, connection) == nullptr) {
        return -EINVAL;
    }
    *value = static_cast<Value>(number);
    return 0;
}

int Network::get_type(connection_h connection, connection_type_e* type) const {
    return answer(Call::connection_get_type, connection, state_.connection_type, type);
}

int Network::get_wifi_state(connection_h connection, connection_wifi_state_e* state) const {
    return answer(Call::connection_get_wifi_state, connection, state_.wifi, state);
}

int Network::get_cellular_state(connection_h connection, connection_cellular_state_e* state) const {
    return answer(Call::connection_get_cellular_state, connection, state_.cellular, state);
}

int Network::get_ethernet_state(connection_h connection, connection_ethernet_state_e* state) const {
    return answer(Call::connection_get_ethernet_state, connection, state_.ethernet, state);
}

int Network::get_bt_state(connection_h connection, connection_bt_state_e* state) const {
    return answer(Call::connection_get_bt_state, connection, state_.bluetooth, state);
}

int Network::set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                 void* user_data) {
    if (const int result = state_.result(Call::connection_set_type_changed_cb)) {
        return result;
    }
    Client* client = find_handle(clients_, connection);
    if (client == nullptr || callback == nullptr) {
        return -EINVAL;
    }
    client->callback = callback;
    client->user_data = user_data;
    return 0;
}

int Network::get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                  connection_profile_iterator_h* iterator) {
    if (const int result = state_.result(Call::connection_get_profile_iterator)) {
        return result;
    }
    if (iterator == nullptr || type != CONNECTION_ITERATOR_TYPE_REGISTERED ||
        find_handle(clients_, connection) == nullptr) {
        return -EINVAL;
    }
    std::vector<std::string> names;
    names.reserve(state_.profiles.size());
    for (const Profile& profile : state_.profiles) {
        names.push_back(profile.name);
    }
    iterators_.push_back({new_handle(), connection, std::move(names), 0});
    *iterator = iterators_.back().handle;
    return 0;
}

bool Network::iterator_has_next(connection_profile_iterator_h iterator) const {
    if (state_.result(Call::connection_profile_iterator_has_next) != 0) {
        return false;
    }
    const Iterator* entry = find_handle(iterators_, iterator);
    return entry != nullptr && entry->next < entry->names.size();
}

int Network::iterator_next(connection_profile_iterator_h iterator, connection_profile_h* profile) {
    if (const int result = state_.result(Call::connection_profile_iterator_next)) {
        return result;
    }
    Iterator* entry = find_handle(iterators_, iterator);
    if (entry == nullptr || profile == nullptr) {
        return -EINVAL;
    }
    if (entry->next == entry->names.size()) {
        return -ENOENT;
    }
    *profile = profile_handle(entry->names[entry->next++]);
    return 0;
}

void* Network::profile_handle(const std::string& name) {
    for (const KnownProfile& known : profiles_) {
        if (known.name == name) {
            return known.handle;
        }
    }
    profiles_.push_back({new_handle(), name, nullptr, nullptr});
    return profiles_.back().handle;
}

int Network::profile_get_type(connection_profile_h profile, connection_profile_type_e* type) const {
    if (const int result = state_.result(Call::connection_profile_get_type)) {
        return result;
    }
    const KnownProfile* known = find_handle(profiles_, profile);
    if (known == nullptr || !type) {
        return -EINVAL;
    }
    const Profile* registered = state_.profile(known->name);
    if (registered == nullptr) {
        return -ENOENT;
    }
    *type = static_cast<connection_profile_type_e>(registered->type);
    return 0;
}

int Network::profile_set_state_changed_cb(connection_profile_h profile,
                                          connection_profile_state_changed_cb callback,
                                          void* user_data) {
    if (const int result = state_.result(Call::connection_profile_set_state_changed_cb)) {
        return result;
    }
    KnownProfile* known = find_handle(profiles_, profile);
    if (known == nullptr || callback == nullptr) {
        return -EINVAL;
    }
    known->callback = callback;
    known->user_data = user_data;
    return 0;
}

int Network::profile_unset_state_changed_cb(connection_profile_h profile) {
    if (const int result = state_.result(Call::connection_profile_unset_state_changed_cb)) {
        return result;
    }
    KnownProfile* known = find_handle(profiles_, profile);
    if (known == nullptr) {
        return -EINVAL;
    }
    known->callback = nullptr;
    known->user_data = nullptr;
    return 0;
}

void Network::type_changed(const Change& change) {
    // Callbacks may create and release clients: each is looked up when its turn comes.
    std::vector<void*> handles;
    for (const Client& client : clients_) {
        handles.push_back(client.handle);
    }
    for (const void* handle : handles) {
        const Client* client = find_handle(clients_, handle);
        if (client == nullptr || client->callback == nullptr) {
            continue;
        }
        const Client called = *client;
        called.callback(static_cast<connection_type_e>(change.value), called.user_data);
    }
}

void Network::profile_changed(const Change& change) {
    for (const KnownProfile& known : profiles_) {
        if (known.name != change.name || known.callback == nullptr) {
            continue;
        }
        // A copy: the callback may add a profile, which moves all of them.
        const KnownProfile called = known;
        called.callback(static_cast<connection_profile_state_e>(change.value), called.user_data);
        return;
    }
}

}  // namespace simulated_platform
