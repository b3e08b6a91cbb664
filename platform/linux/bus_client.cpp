#include "bus_client.h"

#include "log.h"

#include <csignal>
#include <utility>

namespace linux_platform {

BusClient::BusClient(std::string thread_name, AddressLookup address, Handlers handlers)
    : thread_name_(std::move(thread_name)),
      address_(std::move(address)),
      handlers_(std::move(handlers)),
      context_(g_main_context_new()),
      loop_(g_main_loop_new(context_.get(), FALSE)) {}

void BusClient::start() {
    std::call_once(started_, [this] { start_thread(); });
}

void BusClient::start_thread() {
    // Blocked around the start rather than inside the thread, which inherits the mask: no signal
    // can arrive there in between.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    g_thread_unref(g_thread_new(thread_name_.c_str(), &BusClient::run, this));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void* BusClient::run(void* self) {
    auto* client = static_cast<BusClient*>(self);
    g_main_context_push_thread_default(client->context_.get());
    RetryDelay delay;
    for (;;) {
        if (client->connect()) {
            delay.reset();
            client->serve_until_closed();
        }
        client->handlers_.disconnected();
        client->wait(delay.next_ms());
    }
}

bool BusClient::connect() {
    GError* failure = nullptr;
    const base::Owned<char> address = address_(&failure);
    if (address) {
        connection_.reset(g_dbus_connection_new_for_address_sync(
            address.get(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &failure));
    }
    const base::Owned<GError> error(failure);
    if (connection_) {
        last_failure_.clear();
        return true;
    }
    // Once for each reason, not at every attempt.
    if (last_failure_ != error->message) {
        last_failure_ = error->message;
        LOG_ERROR("%s: failed to connect to the bus at %s: %s; will retry", thread_name_.c_str(),
                  address ? address.get() : "an unknown address", error->message);
    }
    return false;
}

void BusClient::serve_until_closed() {
    // Delivered on this thread's context, so not before the loop runs.
    const gulong closed =
        g_signal_connect(connection_.get(), "closed", G_CALLBACK(&BusClient::on_closed), this);
    handlers_.connected();
    if (g_dbus_connection_is_closed(connection_.get()) == FALSE) {
        g_main_loop_run(loop_.get());
    }

    g_signal_handler_disconnect(connection_.get(), closed);
    for (const unsigned subscription : subscriptions_) {
        g_dbus_connection_signal_unsubscribe(connection_.get(), subscription);
    }
    subscriptions_.clear();
    connection_.reset();
}

void BusClient::on_closed(GDBusConnection* /*connection*/, int /*remote_peer_vanished*/,
                          GError* /*error*/, void* self) {
    g_main_loop_quit(static_cast<BusClient*>(self)->loop_.get());
}

void BusClient::subscribe(const char* sender, const char* interface, const char* member,
                          const char* path, const char* arg0, GDBusSignalCallback callback,
                          void* user_data) {
    subscriptions_.push_back(
        g_dbus_connection_signal_subscribe(connection_.get(), sender, interface, member, path, arg0,
                                           G_DBUS_SIGNAL_FLAGS_NONE, callback, user_data, nullptr));
}

void BusClient::complete_subscriptions() {
    // The bus processes a connection's messages in order, so the reply to any later call will do.
    // A failure means that the connection is lost, which is noticed as such.
    const base::Owned<GVariant> reply(g_dbus_connection_call_sync(
        connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr));
}

void BusClient::call_after(unsigned milliseconds, GSourceFunc function, void* user_data) {
    const base::Owned<GSource> source(g_timeout_source_new(milliseconds));
    g_source_set_callback(source.get(), function, user_data, nullptr);
    g_source_attach(source.get(), context_.get());
}

void BusClient::wait(unsigned milliseconds) {
    call_after(
        milliseconds,
        [](void* loop) -> int {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        loop_.get());
    g_main_loop_run(loop_.get());
}

}  // namespace linux_platform
