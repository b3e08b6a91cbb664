#ifndef LINUX_PLATFORM_NETWORK_MONITOR_H
#define LINUX_PLATFORM_NETWORK_MONITOR_H

#include "bus_client.h"
#include "main_loop_call.h"
#include "network_state.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace linux_platform {

/** What is known of the network. Never changes once it is published. */
struct NetworkSnapshot {
    /** NetworkManager answers. Without it nothing is connected, as far as anyone can say. */
    bool available = false;
    NetworkState state;
    std::vector<Profile> profiles;
    /**
     * Numbers that change with every change of the type, and of a profile's
     * state: who missed a change sees that there was one. None for a
     * disconnected profile.
     */
    uint64_t type_change = 0;
    std::map<std::string, uint64_t> profile_changes;
};

/**
 * Follows NetworkManager and publishes what it says.
 *
 * Any signal of it that may matter leads to asking for all of its objects, so
 * that a snapshot is what NetworkManager held at one moment and no order of
 * signals is relied on.
 */
class NetworkMonitor {
public:
    using Snapshot = std::shared_ptr<const NetworkSnapshot>;

    /** How long after the start the first snapshot is waited for. */
    static constexpr std::chrono::milliseconds FIRST_ANSWER_LIMIT{1000};

    /** The process's one monitor; it lives as long as the process. */
    static NetworkMonitor& instance();

    /**
     * Starts following; later calls have no effect.
     *
     * @param changed  called on the main loop's thread after a change
     */
    void start(void (*changed)());

    /**
     * The newest snapshot. Waits for the first one, up to FIRST_ANSWER_LIMIT
     * after the start; from then on it never waits. Null when there is none yet.
     */
    Snapshot snapshot();

private:
    NetworkMonitor();

    static void on_signal(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* signal, GVariant* parameters,
                          void* self);
    static void on_profile_signal(GDBusConnection* connection, const char* sender, const char* path,
                                  const char* interface, const char* signal, GVariant* parameters,
                                  void* self);
    static int on_refresh_due(void* self);

    // On the bus client's thread.
    void connected();
    void disconnected();
    void refresh_after(unsigned milliseconds);
    void refresh();
    void refresh_failed(const GError* error);
    VariantPointer call(const char* path, const char* interface, const char* method,
                        const char* answer_type, ErrorPointer* error);
    VariantPointer get_state(NetworkState* state, ErrorPointer* error);
    void update_profiles(GVariant* objects);
    void publish(NetworkSnapshot next);
    bool is_connected();

    BusClient m_bus;
    std::once_flag m_started;
    std::unique_ptr<MainLoopCall> m_changed;

    // Of the bus client's thread.
    bool m_refresh_due = false;
    unsigned m_retry_ms = 0;
    std::vector<Profile> m_profiles;
    bool m_profiles_outdated = true;
    uint64_t m_changes = 0;

    std::mutex m_mutex;
    std::condition_variable m_published;
    Snapshot m_snapshot;
    std::chrono::steady_clock::time_point m_wait_until;
};

}  // namespace linux_platform

#endif
