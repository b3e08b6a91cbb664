/**
 * Owners of what GLib allocates. Needs glib-2.0.
 */
#pragma once

#include <memory>

#include <glib.h>

namespace base {

/** Frees each of GLib's types the way GLib wants it freed. */
struct GlibFree {
    void operator()(char* text) const { g_free(text); }
    void operator()(char** texts) const { g_strfreev(texts); }
    void operator()(GChecksum* checksum) const { g_checksum_free(checksum); }
    void operator()(GDir* directory) const { g_dir_close(directory); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GKeyFile* key_file) const { g_key_file_free(key_file); }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(GSource* source) const { g_source_unref(source); }
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GVariantIter* iterator) const { g_variant_iter_free(iterator); }
};

/** An object, text or null-terminated list of texts: Owned<GError>, Owned<char>, Owned<char*>. */
template <typename Type>
using Owned = std::unique_ptr<Type, GlibFree>;

}  // namespace base
