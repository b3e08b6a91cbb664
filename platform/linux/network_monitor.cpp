#include "network_monitor.h"

#include "log.h"

#include <algorithm>
#include <utility>

namespace linux_platform {

namespace {

/** An activation is dozens of signals; those that come together are one refresh. */
constexpr unsigned GATHER_MS = 2;

/**
 * A loss is reported when it lasts this long, or this long while a profile is
 * being activated: activating one anew takes the connection away for a moment.
 */
constexpr int SETTLE_MS = 20;
constexpr int ACTIVATION_MS = 100;
constexpr int SETTLE_STEP_MS = 10;

constexpr unsigned FIRST_RETRY_MS = 50;
constexpr unsigned LAST_RETRY_MS = 3000;

TextPointer system_bus_address(GError** error) {
    return TextPointer(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
}

}  // namespace

NetworkMonitor& NetworkMonitor::instance() {
    // Never destroyed: its thread runs until the process ends.
    static auto* monitor = new NetworkMonitor();
    return *monitor;
}

NetworkMonitor::NetworkMonitor()
    : bus_("ad-network", system_bus_address,
           {[this] { connected(); }, [this] { disconnected(); }}) {}

void NetworkMonitor::start(void (*changed)()) {
    std::call_once(started_, [this, changed] {
        changed_ = std::make_unique<MainLoopCall>(changed);
        wait_until_ = std::chrono::steady_clock::now() + FIRST_ANSWER_LIMIT;
        bus_.start();
    });
}

NetworkMonitor::Snapshot NetworkMonitor::snapshot() {
    std::unique_lock<std::mutex> lock(mutex_);
    published_.wait_until(lock, wait_until_, [this] { return snapshot_ != nullptr; });
    return snapshot_;
}

// --- On the bus client's thread ----------------------------------------------

void NetworkMonitor::connected() {
    using Service = NetworkManager;
    retry_ms_ = FIRST_RETRY_MS;
    profiles_outdated_ = true;
    const auto on = [this](GDBusSignalCallback callback, const char* sender, const char* interface,
                           const char* member, const char* path, const char* arg0) {
        bus_.subscribe(sender, interface, member, path, arg0, callback, this);
    };
    const auto on_properties = [&on](GDBusSignalCallback callback, const char* path,
                                     const char* interface) {
        on(callback, Service::SERVICE, Service::PROPERTIES, "PropertiesChanged", path, interface);
    };
    on(&on_profile_signal, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
       nullptr, Service::SERVICE);
    on(&on_profile_signal, Service::SERVICE, Service::CONNECTION, "Updated", nullptr, nullptr);
    on_properties(&on_profile_signal, Service::SETTINGS_PATH, Service::SETTINGS);
    // Only what says something about connections: the strength of an access point
    // changes every few seconds.
    on_properties(&on_signal, Service::MANAGER_PATH, Service::MANAGER);
    on_properties(&on_signal, nullptr, Service::ACTIVE);
    on_properties(&on_signal, nullptr, Service::DEVICE);
    refresh();
}

void NetworkMonitor::disconnected() { publish({}); }

void NetworkMonitor::on_signal(GDBusConnection* /*connection*/, const char* /*sender*/,
                               const char* /*path*/, const char* /*interface*/,
                               const char* /*signal*/, GVariant* /*parameters*/, void* self) {
    static_cast<NetworkMonitor*>(self)->refresh_soon();
}

void NetworkMonitor::on_profile_signal(GDBusConnection* /*connection*/, const char* /*sender*/,
                                       const char* /*path*/, const char* /*interface*/,
                                       const char* /*signal*/, GVariant* /*parameters*/,
                                       void* self) {
    auto* monitor = static_cast<NetworkMonitor*>(self);
    monitor->profiles_outdated_ = true;
    monitor->refresh_soon();
}

void NetworkMonitor::refresh_soon() {
    if (refresh_due_) return;
    refresh_due_ = true;
    bus_.call_after(
        GATHER_MS,
        [](void* self) -> int {
            auto* monitor = static_cast<NetworkMonitor*>(self);
            monitor->refresh_due_ = false;
            monitor->refresh();
            return G_SOURCE_REMOVE;
        },
        this);
}

void NetworkMonitor::retry_later() {
    if (retry_due_) return;
    retry_due_ = true;
    bus_.call_after(
        retry_ms_,
        [](void* self) -> int {
            auto* monitor = static_cast<NetworkMonitor*>(self);
            monitor->retry_due_ = false;
            monitor->refresh();
            return G_SOURCE_REMOVE;
        },
        this);
    retry_ms_ = std::min(retry_ms_ * 2, LAST_RETRY_MS);
}

void NetworkMonitor::refresh() {
    // It may have come due after the connection was lost.
    if (!bus_.connection()) return;
    const NetworkManager service(bus_.connection());
    ErrorPointer error;
    NetworkSnapshot next;
    bool answered = read_settled(service, &next.state, &error);
    if (answered && profiles_outdated_) {
        profiles_outdated_ = false;
        answered = service.read_profiles(&profiles_, &error);
    }
    if (!answered) {
        refresh_failed(error.get());
        return;
    }
    retry_ms_ = FIRST_RETRY_MS;
    last_failure_.clear();
    next.available = true;
    next.profiles = profiles_;
    publish(std::move(next));
}

bool NetworkMonitor::read_settled(const NetworkManager& service, NetworkState* state,
                                  ErrorPointer* error) {
    const bool was_connected = is_connected();
    for (int waited = 0;; waited += SETTLE_STEP_MS) {
        NetworkObjects objects;
        if (!service.read_objects(&objects, error)) return false;
        *state = network_state(objects);
        const bool lost = was_connected && state->type == CONNECTION_TYPE_DISCONNECTED;
        if (!lost || waited >= (is_activating(objects) ? ACTIVATION_MS : SETTLE_MS)) return true;
        g_usleep(SETTLE_STEP_MS * G_TIME_SPAN_MILLISECOND);
    }
}

void NetworkMonitor::refresh_failed(const GError* error) {
    publish({});
    profiles_outdated_ = true;
    // Without an owner of its name, the service announces itself when it comes.
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_dbus_connection_is_closed(bus_.connection())) {
        return;
    }
    // Once for each reason, not at every try: some services take half a minute to start.
    if (last_failure_ != error->message) {
        last_failure_ = error->message;
        log_error("ad-network: %s does not tell its state: %s; trying on", NetworkManager::SERVICE,
                  error->message);
    }
    retry_later();
}

bool NetworkMonitor::is_connected() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return snapshot_ && snapshot_->state.type != CONNECTION_TYPE_DISCONNECTED;
}

void NetworkMonitor::publish(NetworkSnapshot next) {
    bool changed = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const NetworkSnapshot nothing;
        const NetworkSnapshot& last = snapshot_ ? *snapshot_ : nothing;
        next.type_change = next.state.type == last.state.type ? last.type_change : ++changes_;
        for (const auto& [uuid, state] : next.state.profile_states) {
            const auto before = last.state.profile_states.find(uuid);
            const bool same = before != last.state.profile_states.end() && before->second == state;
            next.profile_changes[uuid] = same ? last.profile_changes.at(uuid) : ++changes_;
        }
        changed =
            next.type_change != last.type_change || next.profile_changes != last.profile_changes;
        snapshot_ = std::make_shared<const NetworkSnapshot>(std::move(next));
    }
    published_.notify_all();
    if (changed) changed_->request();
}

}  // namespace linux_platform
