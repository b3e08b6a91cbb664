#include "network_monitor.h"

#include "log.h"

#include <algorithm>
#include <utility>

namespace linux_platform {

namespace {

constexpr const char* SERVICE = "org.freedesktop.NetworkManager";
constexpr const char* MANAGER_PATH = "/org/freedesktop/NetworkManager";
constexpr const char* SETTINGS_PATH = "/org/freedesktop/NetworkManager/Settings";
constexpr const char* DEVICE = "org.freedesktop.NetworkManager.Device";
constexpr const char* ACTIVE = "org.freedesktop.NetworkManager.Connection.Active";
constexpr const char* CONNECTION = "org.freedesktop.NetworkManager.Settings.Connection";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

/** An activation is dozens of signals; those that come together are one refresh. */
constexpr unsigned GATHER_MS = 2;

/** While a profile is activated anew there is no connection for about a millisecond. */
constexpr unsigned SETTLE_MS = 20;

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
    retry_ms_ = FIRST_RETRY_MS;
    profiles_outdated_ = true;
    const auto on = [this](GDBusSignalCallback callback, const char* sender, const char* interface,
                           const char* member, const char* path, const char* arg0) {
        bus_.subscribe(sender, interface, member, path, arg0, callback, this);
    };
    on(&on_profile_signal, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
       nullptr, SERVICE);
    on(&on_profile_signal, SERVICE, PROPERTIES, "PropertiesChanged", SETTINGS_PATH, nullptr);
    on(&on_profile_signal, SERVICE, CONNECTION, "Updated", nullptr, nullptr);
    // Of the properties only what says something about connections: the strength
    // of an access point changes every few seconds.
    on(&on_signal, SERVICE, PROPERTIES, "PropertiesChanged", MANAGER_PATH, nullptr);
    on(&on_signal, SERVICE, PROPERTIES, "PropertiesChanged", nullptr, ACTIVE);
    on(&on_signal, SERVICE, PROPERTIES, "PropertiesChanged", nullptr, DEVICE);
    refresh();
}

void NetworkMonitor::disconnected() { publish({}); }

void NetworkMonitor::on_signal(GDBusConnection* /*connection*/, const char* /*sender*/,
                               const char* /*path*/, const char* /*interface*/,
                               const char* /*signal*/, GVariant* /*parameters*/, void* self) {
    static_cast<NetworkMonitor*>(self)->refresh_after(GATHER_MS);
}

void NetworkMonitor::on_profile_signal(GDBusConnection* /*connection*/, const char* /*sender*/,
                                       const char* /*path*/, const char* /*interface*/,
                                       const char* /*signal*/, GVariant* /*parameters*/,
                                       void* self) {
    auto* monitor = static_cast<NetworkMonitor*>(self);
    monitor->profiles_outdated_ = true;
    monitor->refresh_after(GATHER_MS);
}

void NetworkMonitor::refresh_after(unsigned milliseconds) {
    if (refresh_due_) return;
    refresh_due_ = true;
    bus_.call_after(milliseconds, &NetworkMonitor::on_refresh_due, this);
}

int NetworkMonitor::on_refresh_due(void* self) {
    auto* monitor = static_cast<NetworkMonitor*>(self);
    monitor->refresh_due_ = false;
    if (monitor->bus_.connection()) monitor->refresh();
    return G_SOURCE_REMOVE;
}

void NetworkMonitor::refresh() {
    ErrorPointer error;
    NetworkSnapshot next;
    VariantPointer objects = get_state(&next.state, &error);
    if (objects && next.state.type == CONNECTION_TYPE_DISCONNECTED && is_connected()) {
        g_usleep(SETTLE_MS * G_TIME_SPAN_MILLISECOND);
        objects = get_state(&next.state, &error);
    }
    if (!objects) {
        refresh_failed(error.get());
        return;
    }
    retry_ms_ = FIRST_RETRY_MS;
    if (profiles_outdated_) update_profiles(objects.get());
    next.available = true;
    next.profiles = profiles_;
    publish(std::move(next));
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
    log_error("ad-network: %s does not tell its state: %s; trying on", SERVICE, error->message);
    refresh_after(retry_ms_);
    retry_ms_ = std::min(retry_ms_ * 2, LAST_RETRY_MS);
}

VariantPointer NetworkMonitor::call(const char* path, const char* interface, const char* method,
                                    const char* answer_type, ErrorPointer* error) {
    GError* failure = nullptr;
    // Without a limit: a service that hangs answers once it goes on, and one that
    // ends is reported by the bus.
    VariantPointer answer(g_dbus_connection_call_sync(
        bus_.connection(), SERVICE, path, interface, method, nullptr, G_VARIANT_TYPE(answer_type),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr, &failure));
    error->reset(failure);
    if (!answer) return nullptr;
    return VariantPointer(g_variant_get_child_value(answer.get(), 0));
}

VariantPointer NetworkMonitor::get_state(NetworkState* state, ErrorPointer* error) {
    VariantPointer objects = call("/org/freedesktop", "org.freedesktop.DBus.ObjectManager",
                                  "GetManagedObjects", "(a{oa{sa{sv}}})", error);
    if (objects) *state = network_state(objects.get());
    return objects;
}

void NetworkMonitor::update_profiles(GVariant* objects) {
    profiles_outdated_ = false;
    profiles_.clear();
    for (const std::string& path : profile_paths(objects)) {
        ErrorPointer error;
        const VariantPointer settings =
            call(path.c_str(), CONNECTION, "GetSettings", "(a{sa{sv}})", &error);
        Profile profile;
        // One that has just been removed, or is not for this user, is left out.
        if (settings && read_profile(settings.get(), &profile)) {
            profiles_.push_back(std::move(profile));
        }
    }
    sort_profiles(&profiles_);
}

bool NetworkMonitor::is_connected() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return snapshot_ && snapshot_->state.type != CONNECTION_TYPE_DISCONNECTED;
}

void NetworkMonitor::publish(NetworkSnapshot next) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        static const NetworkSnapshot nothing;
        const NetworkSnapshot& last = snapshot_ ? *snapshot_ : nothing;
        next.type_change = next.state.type == last.state.type ? last.type_change : ++changes_;
        for (const auto& [uuid, state] : next.state.profile_states) {
            const auto before = last.state.profile_states.find(uuid);
            const bool same = before != last.state.profile_states.end() && before->second == state;
            next.profile_changes[uuid] = same ? last.profile_changes.at(uuid) : ++changes_;
        }
        snapshot_ = std::make_shared<const NetworkSnapshot>(std::move(next));
    }
    published_.notify_all();
    changed_->request();
}

}  // namespace linux_platform
