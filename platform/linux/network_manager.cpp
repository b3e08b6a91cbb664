#include "network_manager.h"

#include <string>
#include <utility>

namespace linux_platform {

namespace {

unsigned number_of(GVariant* properties, const char* name) {
    guint32 number = 0;
    g_variant_lookup(properties, name, "u", &number);
    return number;
}

std::string text_of(GVariant* properties, const char* name, const char* type) {
    const char* text = "";
    g_variant_lookup(properties, name, type, &text);
    return text;
}

std::vector<std::string> paths_in(GVariant* array) {
    std::vector<std::string> paths;
    if (!array) return paths;
    GVariantIter iterator;
    g_variant_iter_init(&iterator, array);
    const char* path = nullptr;
    while (g_variant_iter_next(&iterator, "&o", &path)) paths.emplace_back(path);
    return paths;
}

std::vector<std::string> paths_of(GVariant* properties, const char* name) {
    return paths_in(
        VariantPointer(g_variant_lookup_value(properties, name, G_VARIANT_TYPE_OBJECT_PATH_ARRAY))
            .get());
}

}  // namespace

bool NetworkManager::read_objects(NetworkObjects* objects, ErrorPointer* error) const {
    *objects = {};
    const VariantPointer manager = get_all(MANAGER_PATH, MANAGER, error);
    if (!manager) return false;
    objects->primary = text_of(manager.get(), "PrimaryConnection", "&o");
    for (const std::string& path : paths_of(manager.get(), "ActiveConnections")) {
        ErrorPointer gone;
        const VariantPointer properties = get_all(path.c_str(), ACTIVE, &gone);
        if (!properties) continue;
        objects->active.push_back(
            {path, text_of(properties.get(), "Type", "&s"), text_of(properties.get(), "Uuid", "&s"),
             number_of(properties.get(), "State"), paths_of(properties.get(), "Devices")});
    }
    for (const std::string& path : paths_of(manager.get(), "Devices")) {
        ErrorPointer gone;
        const VariantPointer properties = get_all(path.c_str(), DEVICE, &gone);
        if (!properties) continue;
        objects->devices[path] = {number_of(properties.get(), "DeviceType"),
                                  number_of(properties.get(), "State")};
    }
    return true;
}

bool NetworkManager::read_profiles(std::vector<Profile>* profiles, ErrorPointer* error) const {
    profiles->clear();
    const VariantPointer paths =
        call(SETTINGS_PATH, SETTINGS, "ListConnections", nullptr, "(ao)", error);
    if (!paths) return false;
    for (const std::string& path : paths_in(paths.get())) {
        ErrorPointer gone;
        const VariantPointer settings =
            call(path.c_str(), CONNECTION, "GetSettings", nullptr, "(a{sa{sv}})", &gone);
        Profile profile;
        if (settings && read_profile(settings.get(), &profile)) {
            profiles->push_back(std::move(profile));
        }
    }
    sort_profiles(profiles);
    return true;
}

VariantPointer NetworkManager::get_all(const char* path, const char* interface,
                                       ErrorPointer* error) const {
    return call(path, PROPERTIES, "GetAll", g_variant_new("(s)", interface), "(a{sv})", error);
}

VariantPointer NetworkManager::call(const char* path, const char* interface, const char* method,
                                    GVariant* arguments, const char* answer_type,
                                    ErrorPointer* error) const {
    GError* failure = nullptr;
    const VariantPointer answer(g_dbus_connection_call_sync(
        bus_, SERVICE, path, interface, method, arguments, G_VARIANT_TYPE(answer_type),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr, &failure));
    error->reset(failure);
    if (!answer) return nullptr;
    return VariantPointer(g_variant_get_child_value(answer.get(), 0));
}

}  // namespace linux_platform
