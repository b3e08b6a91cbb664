#include "network_manager.h"

#include <string>
#include <vector>

namespace linux_platform {

namespace {

unsigned uint_property(GVariant* properties, const char* name) {
    guint32 number = 0;
    g_variant_lookup(properties, name, "u", &number);
    return number;
}

/** @param format  "&s", or "&o" for an object path */
std::string text_property(GVariant* properties, const char* name, const char* format) {
    const char* text = "";
    g_variant_lookup(properties, name, format, &text);
    return text;
}

std::vector<std::string> paths_property(GVariant* properties, const char* name) {
    std::vector<std::string> paths;
    const base::Owned<GVariant> array(
        g_variant_lookup_value(properties, name, G_VARIANT_TYPE_OBJECT_PATH_ARRAY));
    if (!array) {
        return paths;
    }
    GVariantIter iterator;
    g_variant_iter_init(&iterator, array.get());
    const char* path = nullptr;
    while (g_variant_iter_next(&iterator, "&o", &path) != FALSE) {
        paths.emplace_back(path);
    }
    return paths;
}

}  // namespace

std::optional<NetworkObjects> NetworkManager::read_objects(GError** error) const {
    const base::Owned<GVariant> root = get_all(manager_path, manager, error);
    if (!root) {
        return std::nullopt;
    }
    NetworkObjects objects;
    objects.primary = text_property(root.get(), "PrimaryConnection", "&o");
    for (const std::string& path : paths_property(root.get(), "ActiveConnections")) {
        const base::Owned<GVariant> found = get_all(path.c_str(), active, nullptr);
        if (found) {
            objects.active.push_back({path, text_property(found.get(), "Type", "&s"),
                                      uint_property(found.get(), "State"),
                                      paths_property(found.get(), "Devices")});
        }
    }
    for (const std::string& path : paths_property(root.get(), "Devices")) {
        const base::Owned<GVariant> found = get_all(path.c_str(), device, nullptr);
        if (found) {
            objects.devices[path] = {uint_property(found.get(), "DeviceType"),
                                     uint_property(found.get(), "State")};
        }
    }
    return objects;
}

base::Owned<GVariant> NetworkManager::get_all(const char* path, const char* interface,
                                              GError** error) const {
    const base::Owned<GVariant> reply(g_dbus_connection_call_sync(
        bus_, service, path, properties, "GetAll", g_variant_new("(s)", interface),
        G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr, error));
    return base::Owned<GVariant>(reply ? g_variant_get_child_value(reply.get(), 0) : nullptr);
}

}  // namespace linux_platform
