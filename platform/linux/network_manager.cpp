#include "network_manager.h"

#include <string>
#include <utility>

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

/** The elements of an array of object paths; none when it is null. */
std::vector<std::string> object_paths(GVariant* array) {
    std::vector<std::string> paths;
    if (array == nullptr) {
        return paths;
    }
    GVariantIter iterator;
    g_variant_iter_init(&iterator, array);
    const char* path = nullptr;
    while (g_variant_iter_next(&iterator, "&o", &path) != FALSE) {
        paths.emplace_back(path);
    }
    return paths;
}

std::vector<std::string> paths_property(GVariant* properties, const char* name) {
    const base::Owned<GVariant> array(
        g_variant_lookup_value(properties, name, G_VARIANT_TYPE_OBJECT_PATH_ARRAY));
    return object_paths(array.get());
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
                                      text_property(found.get(), "Uuid", "&s"),
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

std::optional<std::vector<Profile>> NetworkManager::read_profiles(GError** error) const {
    const base::Owned<GVariant> paths =
        call(settings_path, settings, "ListConnections", nullptr, "(ao)", error);
    if (!paths) {
        return std::nullopt;
    }
    std::vector<Profile> profiles;
    for (const std::string& path : object_paths(paths.get())) {
        const base::Owned<GVariant> found =
            call(path.c_str(), connection, "GetSettings", nullptr, "(a{sa{sv}})", nullptr);
        std::optional<Profile> profile = found ? parse_profile(found.get()) : std::nullopt;
        if (profile) {
            profiles.push_back(*std::move(profile));
        }
    }
    sort_profiles(profiles);
    return profiles;
}

base::Owned<GVariant> NetworkManager::get_all(const char* path, const char* interface,
                                              GError** error) const {
    return call(path, properties, "GetAll", g_variant_new("(s)", interface), "(a{sv})", error);
}

base::Owned<GVariant> NetworkManager::call(const char* path, const char* interface,
                                           const char* method, GVariant* arguments,
                                           const char* reply_type, GError** error) const {
    const base::Owned<GVariant> reply(g_dbus_connection_call_sync(
        bus_, service, path, interface, method, arguments, G_VARIANT_TYPE(reply_type),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr, error));
    return base::Owned<GVariant>(reply ? g_variant_get_child_value(reply.get(), 0) : nullptr);
}

}  // namespace linux_platform
