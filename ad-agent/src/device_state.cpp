#include "device_state.h"

#include "base/glib_owned.h"
#include "part_file.h"

#include <algorithm>

namespace ad_agent {
namespace {

constexpr char file_name[] = "state.ini";
constexpr std::uint64_t max_state_size = 64ULL * 1024;
constexpr std::size_t max_bad = 32;
constexpr char installed_group[] = "installed";
constexpr char offered_group[] = "offered";
constexpr char bad_group[] = "bad";

std::string read_text(GKeyFile* file, const char* group, const char* key) {
    const base::Owned<char> text(g_key_file_get_string(file, group, key, nullptr));
    return text ? text.get() : "";
}

std::vector<std::string> read_list(GKeyFile* file, const char* group, const char* key) {
    gsize length = 0;
    gchar** const list = g_key_file_get_string_list(file, group, key, &length, nullptr);
    std::vector<std::string> texts(list, list + length);
    g_strfreev(list);
    return texts;
}

}  // namespace

bool DeviceState::is_bad(const std::string& sha256) const {
    return std::find(bad.begin(), bad.end(), sha256) != bad.end();
}

void DeviceState::add_bad(const std::string& sha256) {
    if (is_bad(sha256)) {
        return;
    }
    bad.push_back(sha256);
    if (bad.size() > max_bad) {
        bad.erase(bad.begin());
    }
}

DeviceState read_state(const DataDirectory& directory) {
    DeviceState state;
    const auto text = directory.read(file_name, max_state_size);
    const base::Owned<GKeyFile> file(g_key_file_new());
    if (!text || !g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE,
                                            nullptr)) {
        return state;
    }
    state.installed_sha256 = read_text(file.get(), installed_group, "sha256");
    state.installed_version = read_text(file.get(), installed_group, "version");
    state.installed_loaded =
        g_key_file_get_boolean(file.get(), installed_group, "loaded", nullptr) != FALSE;
    state.offered_version = read_text(file.get(), offered_group, "version");
    state.offered_firmware = read_text(file.get(), offered_group, "firmware");
    state.repairs = g_key_file_get_integer(file.get(), offered_group, "repairs", nullptr);
    state.bad = read_list(file.get(), bad_group, "sha256");
    return state;
}

Result<> write_state(const DataDirectory& directory, const DeviceState& state) {
    const base::Owned<GKeyFile> file(g_key_file_new());
    const auto set = [&](const char* group, const char* key, const std::string& value) {
        g_key_file_set_string(file.get(), group, key, value.c_str());
    };
    set(installed_group, "sha256", state.installed_sha256);
    set(installed_group, "version", state.installed_version);
    g_key_file_set_boolean(file.get(), installed_group, "loaded", state.installed_loaded);
    set(offered_group, "version", state.offered_version);
    set(offered_group, "firmware", state.offered_firmware);
    g_key_file_set_integer(file.get(), offered_group, "repairs", state.repairs);
    std::vector<const gchar*> bad;
    for (const std::string& sha256 : state.bad) {
        bad.push_back(sha256.c_str());
    }
    g_key_file_set_string_list(file.get(), bad_group, "sha256", bad.data(), bad.size());
    const base::Owned<char> text(g_key_file_to_data(file.get(), nullptr, nullptr));
    return replace_file(directory, file_name, text.get());
}

}  // namespace ad_agent
