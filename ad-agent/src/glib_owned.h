/**
 * GLib's objects and texts, freed at the end of their scope.
 */
#ifndef AD_AGENT_GLIB_OWNED_H
#define AD_AGENT_GLIB_OWNED_H

#include <memory>

#include <glib.h>

namespace ad_agent {

struct GlibFree {
    void operator()(char* text) const { g_free(text); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GKeyFile* key_file) const { g_key_file_free(key_file); }
};

using OwnedText = std::unique_ptr<char, GlibFree>;
using OwnedError = std::unique_ptr<GError, GlibFree>;
using OwnedKeyFile = std::unique_ptr<GKeyFile, GlibFree>;

}  // namespace ad_agent

#endif
