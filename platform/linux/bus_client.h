#pragma once

#include "base/glib_owned.h"
#include "base/gobject_owned.h"
#include "retry_delay.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gio/gio.h>

namespace linux_platform {

/**
 * Keeps a connection to a message bus up for as long as the process lives, on a
 * thread of its own.
 *
 * The connection is private: GIO's shared ones end the process when their bus
 * goes away. A bus that is missing, dies or refuses is retried, see RetryDelay.
 * On its own thread the client may wait for a service without a limit, since
 * nobody waits for that thread without one; a service that dies or loses its
 * bus ends the wait with an error.
 *
 * All signals are blocked on the thread, and thereby on those that GIO starts
 * from it: the process's signal handlers keep running on its own threads.
 */
class BusClient {
public:
    /** Returns the address to connect to, or null with the error set. */
    using AddressLookup = std::function<base::Owned<char>(GError**)>;

    struct Handlers {
        /** A connection is up: subscribe, and read what may have changed meanwhile. */
        std::function<void()> connected;
        /** The connection is lost, or an attempt to connect failed. */
        std::function<void()> disconnected;
    };

    /** Both handlers are called on the client's thread. Starts nothing yet. */
    BusClient(std::string thread_name, AddressLookup address, Handlers handlers);
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /** Starts the thread; later calls have no effect. It never ends. From any thread. */
    void start();

    /**
     * Subscribes to signals until the connection is lost, see
     * g_dbus_connection_signal_subscribe(). Null matches any sender, path or
     * first argument. On the client's thread, connected.
     */
    void subscribe(const char* sender, const char* interface, const char* member, const char* path,
                   const char* arg0, GDBusSignalCallback callback, void* user_data);

    /**
     * Returns once the bus has the subscriptions: changes from then on are
     * signalled. On the client's thread, connected.
     */
    void complete_subscriptions();

    /** The connection; null while there is none. On the client's thread. */
    GDBusConnection* connection() const { return connection_.get(); }

    /** Runs a function on the client's thread after a delay. From any thread, also before start. */
    void call_after(unsigned milliseconds, GSourceFunc function, void* user_data);

private:
    static void* run(void* self);
    static void on_closed(GDBusConnection* connection, int remote_peer_vanished, GError* error,
                          void* self);

    void start_thread();
    bool connect();
    void serve_until_closed();
    void wait(unsigned milliseconds);

    const std::string thread_name_;
    const AddressLookup address_;
    const Handlers handlers_;
    const base::Owned<GMainContext> context_;
    const base::Owned<GMainLoop> loop_;
    std::once_flag started_;
    base::OwnedObject<GDBusConnection> connection_;
    std::vector<unsigned> subscriptions_;
    std::string last_failure_;
};

}  // namespace linux_platform
