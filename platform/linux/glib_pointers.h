/** GLib's reference-counted and allocated things as smart pointers. */
#pragma once

#include <memory>

#include <gio/gio.h>

namespace linux_platform {

struct GlibDeleter {
    void operator()(gchar* text) const { g_free(text); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GVariantIter* iterator) const { g_variant_iter_free(iterator); }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
};

using TextPointer = std::unique_ptr<gchar, GlibDeleter>;
using ErrorPointer = std::unique_ptr<GError, GlibDeleter>;
using VariantPointer = std::unique_ptr<GVariant, GlibDeleter>;
using VariantIterPointer = std::unique_ptr<GVariantIter, GlibDeleter>;
using MainContextPointer = std::unique_ptr<GMainContext, GlibDeleter>;
using MainLoopPointer = std::unique_ptr<GMainLoop, GlibDeleter>;
using BusConnectionPointer = std::unique_ptr<GDBusConnection, GlibDeleter>;

}  // namespace linux_platform
