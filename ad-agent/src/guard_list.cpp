#include "guard_list.h"

#include "base/glib_owned.h"
#include "key_file.h"
#include "log.h"
#include "part_file.h"
#include "utc_time.h"

namespace ad_agent {
namespace {

constexpr char file_name[] = "guard-bad.ini";
constexpr std::uint64_t max_size = 64ULL * 1024;
constexpr std::size_t max_text = 256;

}  // namespace

RefusedImages read_guard_list(const DataDirectory& directory) {
    RefusedImages images;
    const base::Owned<GKeyFile> file = load_key_file(directory, file_name, max_size);
    if (!file) {
        return images;
    }
    const base::Owned<char*> groups(g_key_file_get_groups(file.get(), nullptr));
    for (char** group = groups.get(); *group; ++group) {
        images.add({*group, read_text(file.get(), *group, "version"),
                    parse_utc(read_text(file.get(), *group, "time")).value_or(0),
                    read_text(file.get(), *group, "reason"), 1});
    }
    return images;
}

Result<> add_to_guard_list(const DataDirectory& directory, const RefusedImage& image) {
    RefusedImages images = read_guard_list(directory);
    images.add(image);
    const base::Owned<GKeyFile> file(g_key_file_new());
    for (const RefusedImage& one : images.all()) {
        const auto set = [&](const char* key, const std::string& value) {
            g_key_file_set_string(file.get(), one.sha256.c_str(), key, value.c_str());
        };
        set("version", printable(one.version, max_text));
        set("time", one.time != 0 ? format_utc(one.time) : "");
        set("reason", printable(one.reason, max_text));
    }
    const base::Owned<char> text(g_key_file_to_data(file.get(), nullptr, nullptr));
    return replace_file(directory, file_name, text.get());
}

std::optional<RefusedImage> find_bad_image(const DataDirectory& directory, const DeviceState& state,
                                           const std::string& sha256) {
    const RefusedImages guarded = read_guard_list(directory);
    const RefusedImage* found = state.bad.find(sha256);
    if (!found) {
        found = guarded.find(sha256);
    }
    return found ? std::optional<RefusedImage>(*found) : std::nullopt;
}

}  // namespace ad_agent
