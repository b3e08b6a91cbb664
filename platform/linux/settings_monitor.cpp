#include "settings_monitor.h"

#include "main_loop_call.h"

#include <utility>

#include <unistd.h>

namespace linux_platform {

namespace {

/** The session bus; without a session, as in a system unit, the one of the user's manager. */
base::Owned<char> settings_bus_address(GError** error) {
    base::Owned<char> address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (address) {
        return address;
    }
    const std::string socket = "/run/user/" + std::to_string(geteuid()) + "/bus";
    if (g_file_test(socket.c_str(), G_FILE_TEST_EXISTS) == FALSE) {
        return nullptr;
    }
    g_clear_error(error);
    return base::Owned<char>(g_strdup(("unix:path=" + socket).c_str()));
}

/** Whether a change signalled for a key, or for a directory (ending in "/"), concerns the key. */
bool concerns(const std::string& changed, const std::string& key) {
    if (changed == key) {
        return true;
    }
    return !changed.empty() && changed.back() == '/' &&
           key.compare(0, changed.size(), changed) == 0;
}

}  // namespace

SettingsMonitor& SettingsMonitor::instance() {
    // Never destroyed: its thread runs until the process ends.
    static auto* monitor = new SettingsMonitor();
    return *monitor;
}

SettingsMonitor::SettingsMonitor()
    : bus_("ad-settings", settings_bus_address, {[this] { connected(); }, [] {}}) {}

void SettingsMonitor::watch(const std::string& key, const std::string& path,
                            vconf_callback_fn callback, void* user_data) {
    auto watch = std::make_unique<Watch>();
    watch->key = key;
    watch->path = path;
    watch->callback = callback;
    watch->user_data = user_data;
    {
        // Read and added under one lock, so that no change falls in between.
        const std::lock_guard<std::mutex> lock(mutex_);
        watch->value = read_settings_value(path);
        watches_.push_back(std::move(watch));
    }
    bus_.start();
}

std::vector<SettingsMonitor::Watch*> SettingsMonitor::watches() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Watch*> all;
    all.reserve(watches_.size());
    for (const auto& watch : watches_) {
        all.push_back(watch.get());
    }
    return all;
}

void SettingsMonitor::connected() {
    // From any sender: a forged signal only leads to reading the database.
    bus_.subscribe(nullptr, "ca.desrt.dconf.Writer", "Notify", nullptr, nullptr,
                   &SettingsMonitor::on_notify, this);
    bus_.complete_subscriptions();
    read_changed("/");
}

void SettingsMonitor::on_notify(GDBusConnection* /*connection*/, const char* /*sender*/,
                                const char* /*path*/, const char* /*interface*/,
                                const char* /*signal*/, GVariant* parameters, void* self) {
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sass)")) == FALSE) {
        return;
    }
    const char* prefix = nullptr;
    GVariantIter* iterator = nullptr;
    const char* tag = nullptr;
    g_variant_get(parameters, "(&sas&s)", &prefix, &iterator, &tag);
    const base::Owned<GVariantIter> changes(iterator);
    const char* change = nullptr;
    while (g_variant_iter_next(changes.get(), "&s", &change) != FALSE) {
        static_cast<SettingsMonitor*>(self)->read_changed(std::string(prefix) + change);
    }
}

void SettingsMonitor::read_changed(const std::string& changed) {
    static MainLoopCall call([] { instance().report(); });
    bool is_any_changed = false;
    for (Watch* watch : watches()) {
        if (!concerns(changed, watch->path)) {
            continue;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        SettingsValue value = read_settings_value(watch->path);
        if (value == watch->value) {
            continue;
        }
        watch->value = std::move(value);
        ++watch->changes;
        is_any_changed = true;
    }
    if (is_any_changed) {
        call.request();
    }
}

bool SettingsMonitor::take_change(Watch& watch, settings_keynode& node) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (watch.reported == watch.changes) {
        return false;
    }
    watch.reported = watch.changes;
    node = {watch.key, watch.value};
    return true;
}

void SettingsMonitor::report() {
    for (Watch* watch : watches()) {
        settings_keynode node;
        if (take_change(*watch, node)) {
            watch->callback(&node, watch->user_data);
        }
    }
}

}  // namespace linux_platform
