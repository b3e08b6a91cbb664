#pragma once

#include "bus_client.h"
#include "main_loop_call.h"
#include "network_manager.h"
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
 * Any signal of it that may matter leads to asking it anew, so that no order of
 * signals is relied on and none that is lost does lasting harm.
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

    // On the bus client's thread.
    void connected();
    void disconnected();
    void refresh_soon();
    void retry_later();
    void refresh();
    bool read_settled(const NetworkManager& service, NetworkState* state, ErrorPointer* error);
    void refresh_failed(const GError* error);
    void publish(NetworkSnapshot next);
    bool is_connected();

    BusClient bus_;
    std::once_flag started_;
    std::unique_ptr<MainLoopCall> changed_;

    // Of the bus client's thread.
    bool refresh_due_ = false;
    bool retry_due_ = false;
    unsigned retry_ms_ = 0;
    std::string last_failure_;
    std::vector<Profile> profiles_;
    bool profiles_outdated_ = true;
    uint64_t changes_ = 0;

    std::mutex mutex_;
    std::condition_variable published_;
    Snapshot snapshot_;
    std::chrono::steady_clock::time_point wait_until_;
};

}  // namespace linux_platform
