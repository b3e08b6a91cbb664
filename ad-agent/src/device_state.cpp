#include "device_state.h"

#include "glib_owned.h"

#include <algorithm>

namespace ad_agent {
namespace {

constexpr std::uint64_t MAX_STATE_SIZE = 64ULL * 1024;
constexpr std::size_t MAX_BAD = 32;
constexpr char INSTALLED[] = "installed";
constexpr char OFFERED[] = "offered";
constexpr char BAD[] = "bad";

std::string text_of(GKeyFile* file, const char* group, const char* key) {
    const OwnedText text(g_key_file_get_string(file, group, key, nullptr));
    return text ? text.get() : "";
}

std::vector<std::string> texts_of(GKeyFile* file, const char* group, const char* key) {
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
    if (is_bad(sha256)) return;
    bad.push_back(sha256);
    if (bad.size() > MAX_BAD) bad.erase(bad.begin());
}

DeviceState read_state(const DataFolder& folder) {
    DeviceState state;
    const auto text = folder.read(STATE_NAME, MAX_STATE_SIZE);
    const OwnedKeyFile file(g_key_file_new());
    if (!text || !g_key_file_load_from_data(file.get(), text->data(), text->size(), G_KEY_FILE_NONE,
                                            nullptr))
        return state;
    state.installed_sha256 = text_of(file.get(), INSTALLED, "sha256");
    state.installed_version = text_of(file.get(), INSTALLED, "version");
    state.installed_loaded = g_key_file_get_boolean(file.get(), INSTALLED, "loaded", nullptr);
    state.offered_version = text_of(file.get(), OFFERED, "version");
    state.offered_firmware = text_of(file.get(), OFFERED, "firmware");
    state.repairs = g_key_file_get_integer(file.get(), OFFERED, "repairs", nullptr);
    state.bad = texts_of(file.get(), BAD, "sha256");
    return state;
}

bool write_state(const DataFolder& folder, const DeviceState& state, std::string& error) {
    const OwnedKeyFile file(g_key_file_new());
    const auto set = [&](const char* group, const char* key, const std::string& value) {
        g_key_file_set_string(file.get(), group, key, value.c_str());
    };
    set(INSTALLED, "sha256", state.installed_sha256);
    set(INSTALLED, "version", state.installed_version);
    g_key_file_set_boolean(file.get(), INSTALLED, "loaded", state.installed_loaded);
    set(OFFERED, "version", state.offered_version);
    set(OFFERED, "firmware", state.offered_firmware);
    g_key_file_set_integer(file.get(), OFFERED, "repairs", state.repairs);
    std::vector<const gchar*> bad;
    for (const std::string& sha256 : state.bad) bad.push_back(sha256.c_str());
    g_key_file_set_string_list(file.get(), BAD, "sha256", bad.data(), bad.size());
    const OwnedText text(g_key_file_to_data(file.get(), nullptr, nullptr));
    return folder.write(STATE_NAME, text.get(), error);
}

}  // namespace ad_agent
