#include "settings_value.h"

#include "base/glib_owned.h"
#include "base/gobject_owned.h"
#include "settings_store.h"

#include <dconf.h>

namespace linux_platform {

SettingsValue read_settings_value(const std::string& path) {
    // A client for each read: one that is kept learns of changes through a file in the runtime
    // directory, which dconf-service may not share with this process.
    const base::OwnedObject<DConfClient> client(dconf_client_new());
    const base::Owned<GVariant> variant(dconf_client_read(client.get(), path.c_str()));
    SettingsValue value;
    if (!variant) {
        return value;
    }
    if (g_variant_is_of_type(variant.get(), G_VARIANT_TYPE_INT32) != FALSE) {
        value.type = SETTINGS_TYPE_INT;
        value.integer = g_variant_get_int32(variant.get());
    } else {
        value.type = static_cast<unsigned char>(*g_variant_get_type_string(variant.get()));
    }
    const base::Owned<char> text(g_variant_print(variant.get(), TRUE));
    value.text = text.get();
    return value;
}

}  // namespace linux_platform
