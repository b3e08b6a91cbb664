#include "device_state.h"

#include "base/glib_owned.h"
#include "key_file.h"
#include "log.h"
#include "part_file.h"
#include "utc_time.h"

#include <algorithm>

namespace ad_agent {
namespace {

constexpr char file_name[] = "state.ini";
constexpr std::uint64_t max_state_size = 128ULL * 1024;
/** Of a result, which may quote a server. */
constexpr std::size_t max_text = 256;
constexpr char installed_group[] = "installed";
constexpr char offered_group[] = "offered";
constexpr char bad_group[] = "bad";
constexpr char wrong_group[] = "wrong";
constexpr char index_group[] = "index";
constexpr char check_group[] = "check";

using Texts = std::vector<std::string>;

Texts read_list(GKeyFile* file, const char* group, const char* key) {
    gsize length = 0;
    gchar** const list = g_key_file_get_string_list(file, group, key, &length, nullptr);
    Texts texts(list, list + length);
    g_strfreev(list);
    return texts;
}

void write_list(GKeyFile* file, const char* group, const char* key, const Texts& texts) {
    std::vector<const gchar*> list;
    list.reserve(texts.size());
    for (const std::string& text : texts) {
        list.push_back(text.c_str());
    }
    g_key_file_set_string_list(file, group, key, list.data(), list.size());
}

/** The group has a list for each field: older libraries read and write the first alone. */
RefusedImages read_refused(GKeyFile* file, const char* group) {
    const Texts hashes = read_list(file, group, "sha256");
    const auto read_field = [&](const char* key) {
        Texts texts = read_list(file, group, key);
        texts.resize(hashes.size());
        return texts;
    };
    const Texts versions = read_field("version");
    const Texts times = read_field("time");
    const Texts reasons = read_field("reason");
    const Texts counts = read_field("count");
    RefusedImages images;
    for (std::size_t i = 0; i < hashes.size(); ++i) {
        images.add(
            {hashes[i], versions[i], parse_utc(times[i]).value_or(0), reasons[i],
             std::max(static_cast<int>(g_ascii_strtoll(counts[i].c_str(), nullptr, 10)), 1)});
    }
    return images;
}

void write_refused(GKeyFile* file, const char* group, const RefusedImages& images) {
    Texts hashes;
    Texts versions;
    Texts times;
    Texts reasons;
    Texts counts;
    for (const RefusedImage& image : images.all()) {
        hashes.push_back(image.sha256);
        versions.push_back(image.version);
        times.push_back(image.time != 0 ? format_utc(image.time) : "");
        reasons.push_back(image.reason);
        counts.push_back(std::to_string(image.count));
    }
    write_list(file, group, "sha256", hashes);
    write_list(file, group, "version", versions);
    write_list(file, group, "time", times);
    write_list(file, group, "reason", reasons);
    write_list(file, group, "count", counts);
}

}  // namespace

DeviceState read_state(const DataDirectory& directory) {
    DeviceState state;
    const base::Owned<GKeyFile> file = load_key_file(directory, file_name, max_state_size);
    if (!file) {
        return state;
    }
    state.installed_sha256 = read_text(file.get(), installed_group, "sha256");
    state.installed_version = read_text(file.get(), installed_group, "version");
    state.installed_loaded =
        g_key_file_get_boolean(file.get(), installed_group, "loaded", nullptr) != FALSE;
    state.offered_version = read_text(file.get(), offered_group, "version");
    state.offered_firmware = read_text(file.get(), offered_group, "firmware");
    state.repairs = g_key_file_get_integer(file.get(), offered_group, "repairs", nullptr);
    state.bad = read_refused(file.get(), bad_group);
    state.wrong = read_refused(file.get(), wrong_group);
    const Texts keys = read_list(file.get(), index_group, "key");
    Texts serials = read_list(file.get(), index_group, "serial");
    serials.resize(keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        state.index_serials.emplace_back(keys[i],
                                         g_ascii_strtoull(serials[i].c_str(), nullptr, 10));
    }
    state.check_time = parse_utc(read_text(file.get(), check_group, "time")).value_or(0);
    state.check_url = read_text(file.get(), check_group, "url");
    state.check_result = read_text(file.get(), check_group, "result");
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
    write_refused(file.get(), bad_group, state.bad);
    write_refused(file.get(), wrong_group, state.wrong);
    Texts keys;
    Texts serials;
    for (const auto& [key, serial] : state.index_serials) {
        keys.push_back(key);
        serials.push_back(std::to_string(serial));
    }
    write_list(file.get(), index_group, "key", keys);
    write_list(file.get(), index_group, "serial", serials);
    set(check_group, "time", state.check_time != 0 ? format_utc(state.check_time) : "");
    set(check_group, "url", state.check_url);
    set(check_group, "result", printable(state.check_result, max_text));
    const base::Owned<char> text(g_key_file_to_data(file.get(), nullptr, nullptr));
    return replace_file(directory, file_name, text.get());
}

}  // namespace ad_agent
