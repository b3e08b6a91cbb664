#include "network_monitor.h"

#include "log.h"

#include <utility>

namespace linux_platform {

namespace {

/** An activation is dozens of signals; those this close together lead to one refresh. */
constexpr unsigned gather_ms = 2;

/**
 * A loss is reported once it has lasted this long, or activation_ms while a
 * connection is being activated: activating one again interrupts it for a
 * moment.
 */
constexpr int settle_ms = 20;
constexpr int activation_ms = 100;
constexpr int settle_step_ms = 10;

base::Owned<char> system_bus_address(GError** error) {
    return base::Owned<char>(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
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
        wait_until_ = std::chrono::steady_clock::now() + first_snapshot_limit;
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
    retry_delay_.reset();
    const auto on_properties = [this](const char* path, const char* interface) {
        bus_.subscribe(Service::service, Service::properties, "PropertiesChanged", path, interface,
                       &on_signal, this);
    };
    bus_.subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", nullptr,
                   Service::service, &on_signal, this);
    // Restricted to interfaces that describe connections: the signal strength of an access point
    // changes every few seconds.
    on_properties(Service::manager_path, Service::manager);
    on_properties(nullptr, Service::active);
    on_properties(nullptr, Service::device);
    refresh();
}

void NetworkMonitor::disconnected() { publish({}); }

void NetworkMonitor::on_signal(GDBusConnection* /*connection*/, const char* /*sender*/,
                               const char* /*path*/, const char* /*interface*/,
                               const char* /*signal*/, GVariant* /*parameters*/, void* self) {
    static_cast<NetworkMonitor*>(self)->refresh_soon();
}

void NetworkMonitor::refresh_soon() {
    if (refresh_due_) {
        return;
    }
    refresh_due_ = true;
    bus_.call_after(
        gather_ms,
        [](void* self) -> int {
            auto* monitor = static_cast<NetworkMonitor*>(self);
            monitor->refresh_due_ = false;
            monitor->refresh();
            return G_SOURCE_REMOVE;
        },
        this);
}

void NetworkMonitor::retry_later() {
    if (retry_due_) {
        return;
    }
    retry_due_ = true;
    bus_.call_after(
        retry_delay_.next_ms(),
        [](void* self) -> int {
            auto* monitor = static_cast<NetworkMonitor*>(self);
            monitor->retry_due_ = false;
            monitor->refresh();
            return G_SOURCE_REMOVE;
        },
        this);
}

void NetworkMonitor::refresh() {
    // Possibly due only after the connection was lost.
    if (bus_.connection() == nullptr) {
        return;
    }
    const NetworkManager service(bus_.connection());
    GError* failure = nullptr;
    std::optional<NetworkState> state = read_settled(service, &failure);
    const base::Owned<GError> error(failure);
    if (!state) {
        refresh_failed(error.get());
        return;
    }
    retry_delay_.reset();
    last_failure_.clear();
    publish({true, *std::move(state)});
}

std::optional<NetworkState> NetworkMonitor::read_settled(const NetworkManager& service,
                                                         GError** error) {
    const bool was_connected = is_connected();
    for (int waited_ms = 0;; waited_ms += settle_step_ms) {
        const std::optional<NetworkObjects> objects = service.read_objects(error);
        if (!objects) {
            return std::nullopt;
        }
        const NetworkState state = network_state(*objects);
        const bool is_lost = was_connected && state.type == CONNECTION_TYPE_DISCONNECTED;
        if (!is_lost || waited_ms >= (is_activating(*objects) ? activation_ms : settle_ms)) {
            return state;
        }
        g_usleep(settle_step_ms * G_TIME_SPAN_MILLISECOND);
    }
}

void NetworkMonitor::refresh_failed(const GError* error) {
    publish({});
    // A service without an owner of its name announces itself when it starts.
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE ||
        g_dbus_connection_is_closed(bus_.connection()) != FALSE) {
        return;
    }
    // Once for each reason, not at every attempt: some services take half a minute to start.
    if (last_failure_ != error->message) {
        last_failure_ = error->message;
        LOG_ERROR("ad-network: %s does not report its state: %s; will retry",
                  NetworkManager::service, error->message);
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
        const bool has_new_type = next.state.type != last.state.type;
        changed = has_new_type || next.state.profile_state != last.state.profile_state;
        next.type_change = last.type_change + (has_new_type ? 1 : 0);
        next.profile_change = last.profile_change + (changed ? 1 : 0);
        snapshot_ = std::make_shared<const NetworkSnapshot>(std::move(next));
    }
    published_.notify_all();
    if (changed) {
        changed_->request();
    }
}

}  // namespace linux_platform
