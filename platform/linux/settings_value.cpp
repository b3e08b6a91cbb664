#include "settings_value.h"

#include "glib_pointers.h"
#include "settings_store.h"

#include <dconf.h>

namespace linux_platform {

SettingsValue read_settings_value(const std::string& path) {
    // A client for each read: a kept one learns of changes through a file in the
    // runtime directory, which dconf-service may not share with this process.
    const std::unique_ptr<DConfClient, decltype(&g_object_unref)> client(dconf_client_new(),
                                                                         g_object_unref);
    const VariantPointer variant(dconf_client_read(client.get(), path.c_str()));
    SettingsValue value;
    if (!variant) return value;
    if (g_variant_is_of_type(variant.get(), G_VARIANT_TYPE_INT32)) {
        value.type = SETTINGS_TYPE_INT;
        value.integer = g_variant_get_int32(variant.get());
    } else {
        value.type = static_cast<unsigned char>(*g_variant_get_type_string(variant.get()));
    }
    const TextPointer text(g_variant_print(variant.get(), TRUE));
    value.text = text.get();
    return value;
}

}  // namespace linux_platform
