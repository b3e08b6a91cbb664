#pragma once

#include "bus_client.h"
#include "settings_store.h"
#include "settings_value.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/** The key and value that a change callback receives. The name is the interface's. */
struct settings_keynode {  // NOLINT(readability-identifier-naming)
    std::string name;
    linux_platform::SettingsValue value;
};

namespace linux_platform {

/**
 * Calls back when the value of a dconf key changes.
 *
 * dconf-service signals changes on the session bus. A signal only leads to
 * reading the key again, so that callbacks report what the database holds.
 * libdconf's own client can watch keys too, but never recovers when the bus was
 * missing at its start or has restarted.
 */
class SettingsMonitor {
public:
    /** The process's one monitor; it lives as long as the process. */
    static SettingsMonitor& instance();

    /** See vconf_notify_key_changed(). `path` is the key's dconf name, a valid one. */
    void watch(const std::string& key, const std::string& path, vconf_callback_fn callback,
               void* user_data);

private:
    struct Watch {
        std::string key;
        std::string path;
        vconf_callback_fn callback;
        void* user_data;

        // Guarded by the mutex.
        SettingsValue value;
        uint64_t changes = 0;
        uint64_t reported = 0;
    };

    SettingsMonitor();

    static void on_notify(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* signal, GVariant* parameters,
                          void* self);

    // On the bus client's thread.
    void connected();
    void read_changed(const std::string& changed);
    // On the main loop's thread.
    void report();
    bool take_change(Watch& watch, settings_keynode& node);

    std::vector<Watch*> watches();

    std::mutex mutex_;
    /** Only ever grows, so that its elements can be used without the mutex. */
    std::vector<std::unique_ptr<Watch>> watches_;
    BusClient bus_;
};

}  // namespace linux_platform
