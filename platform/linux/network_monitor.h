#pragma once

#include "bus_client.h"
#include "main_loop_call.h"
#include "network_manager.h"
#include "network_state.h"
#include "retry_delay.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace linux_platform {

/** The network at one time. Immutable once it is published. */
struct NetworkSnapshot {
    /** NetworkManager replies. Otherwise nothing counts as connected. */
    bool available = false;
    NetworkState state;
    /**
     * Numbers that grow whenever the type, or the profile, changes: they reveal
     * changes that a reader missed. The profile changes with its state, and with
     * its type: being connected by another type of connection is news as well.
     */
    uint64_t type_change = 0;
    uint64_t profile_change = 0;
};

/**
 * Follows NetworkManager and publishes its state.
 *
 * Any relevant signal leads to reading the state again, so that the order of
 * signals does not matter and a lost one does no lasting harm.
 */
class NetworkMonitor {
public:
    using Snapshot = std::shared_ptr<const NetworkSnapshot>;

    /** How long after the start callers wait for the first snapshot. */
    static constexpr std::chrono::milliseconds first_snapshot_limit{1000};

    /** The process's one monitor; it lives as long as the process. */
    static NetworkMonitor& instance();

    /**
     * Starts following; later calls have no effect.
     *
     * @param changed  called on the main loop's thread after a change
     */
    void start(void (*changed)());

    /**
     * The newest snapshot. Waits for the first one, until first_snapshot_limit
     * after the start; never waits from then on. Null when there is none yet.
     */
    Snapshot snapshot();

private:
    NetworkMonitor();

    static void on_signal(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* signal, GVariant* parameters,
                          void* self);

    // On the bus client's thread.
    void connected();
    void disconnected();
    void refresh_soon();
    void retry_later();
    void refresh();
    std::optional<NetworkState> read_settled(const NetworkManager& service, GError** error);
    void refresh_failed(const GError* error);
    void publish(NetworkSnapshot next);
    bool is_connected();

    BusClient bus_;
    std::once_flag started_;
    std::unique_ptr<MainLoopCall> changed_;

    // Used by the bus client's thread only.
    bool refresh_due_ = false;
    bool retry_due_ = false;
    RetryDelay retry_delay_;
    std::string last_failure_;

    std::mutex mutex_;
    std::condition_variable published_;
    Snapshot snapshot_;
    std::chrono::steady_clock::time_point wait_until_;
};

}  // namespace linux_platform
