#include "bus_client.h"

#include "log.h"

#include <algorithm>
#include <csignal>
#include <utility>

namespace linux_platform {

namespace {

constexpr unsigned FIRST_RETRY_MS = 50;
constexpr unsigned LAST_RETRY_MS = 3000;

}  // namespace

BusClient::BusClient(std::string thread_name, Address address, Handlers handlers)
    : thread_name_(std::move(thread_name)),
      address_(std::move(address)),
      handlers_(std::move(handlers)),
      context_(g_main_context_new()),
      loop_(g_main_loop_new(context_.get(), FALSE)) {}

void BusClient::start() {
    std::call_once(started_, [this] { start_thread(); });
}

void BusClient::start_thread() {
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
    unsigned retry_ms = FIRST_RETRY_MS;
    for (;;) {
        if (client->connect()) {
            retry_ms = FIRST_RETRY_MS;
            client->serve_until_closed();
        }
        client->handlers_.disconnected();
        client->wait(retry_ms);
        retry_ms = std::min(retry_ms * 2, LAST_RETRY_MS);
    }
}

bool BusClient::connect() {
    GError* failure = nullptr;
    const TextPointer address = address_(&failure);
    if (address) {
        connection_.reset(g_dbus_connection_new_for_address_sync(
            address.get(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &failure));
    }
    const ErrorPointer error(failure);
    if (connection_) {
        last_failure_.clear();
        return true;
    }
    // Once for each reason, not at every try.
    if (last_failure_ != error->message) {
        last_failure_ = error->message;
        log_error("%s: no bus at %s: %s; trying on", thread_name_.c_str(),
                  address ? address.get() : "an unknown address", error->message);
    }
    return false;
}

void BusClient::serve_until_closed() {
    // Delivered on this thread's context, so not before the loop runs.
    const gulong closed =
        g_signal_connect(connection_.get(), "closed", G_CALLBACK(&BusClient::on_closed), this);
    handlers_.connected();
    if (!g_dbus_connection_is_closed(connection_.get())) g_main_loop_run(loop_.get());

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
    // The bus answers a connection in order, so an answer to anything will do. A
    // failure is the connection's end, and noticed as such.
    const VariantPointer answer(g_dbus_connection_call_sync(
        connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr));
}

void BusClient::call_after(unsigned milliseconds, GSourceFunc function, void* user_data) {
    GSource* source = g_timeout_source_new(milliseconds);
    g_source_set_callback(source, function, user_data, nullptr);
    g_source_attach(source, context_.get());
    g_source_unref(source);
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
