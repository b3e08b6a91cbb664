#include "snapshot.h"

#include "ADDigest.h"
#include "base/decimal_version.h"
#include "base/errno_text.h"
#include "base/os_release.h"
#include "device.h"
#include "guard_list.h"
#include "image_target.h"
#include "system_information.h"
#include "trusted_index.h"
#include "version.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace ad_ctl {
namespace {

using ad_agent::DataDirectory;
using ad_agent::RefusedImage;

/** Only the Linux platform installs this unit. */
constexpr char linux_platform_unit[] = "/lib/systemd/system/adagentd-bus.socket";

/** Has the platform library read the firmware's version. Returns its status. */
int ask_platform(std::string& version, Unseen& unseen) {
    // Loaded only here, since this program must also work where there is none.
    void* const platform = dlopen("libad-platform.so.1", RTLD_LAZY | RTLD_LOCAL);
    void* const symbol = platform ? dlsym(platform, "system_info_get_value_string") : nullptr;
    if (!symbol) {
        const char* const reason = dlerror();
        unseen.push_back(std::string("the firmware's version: ") + (reason ? reason : "no symbol"));
        return -ENOSYS;
    }
    const auto get_value = reinterpret_cast<decltype(&system_info_get_value_string)>(symbol);
    char* text = nullptr;
    const int status = get_value(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &text);
    version = text ? text : "";
    free(text);
    return status;
}

/** Reads the firmware's version as the daemon gets it, empty if that fails. */
std::string current_firmware(bool& has_platform, Unseen& unseen) {
    std::string version;
    int status = 0;
    if (access(linux_platform_unit, F_OK) == 0) {
        // What that platform does, without the memory that its libraries take.
        base::Owned<char> text;
        status = base::os_release_version(text);
        version = text ? text.get() : "";
    } else {
        status = ask_platform(version, unseen);
    }
    has_platform = status != -ENOSYS;
    if (has_platform && (status != 0 || version.empty())) {
        unseen.push_back("the firmware's version: the platform failed with status " +
                         std::to_string(status));
    }
    return version;
}

/** Notes a file that exists but cannot be read: its readers take it for missing. */
void note_unreadable(const std::string& path, Unseen& unseen) {
    if (access(path.c_str(), R_OK) != 0 && errno != ENOENT && errno != ENOTDIR) {
        unseen.push_back(path + ": " + base::errno_text(errno));
    }
}

/** Hashing the image takes long, so it is done only if one of its version is bad. */
bool may_be(const RefusedImage& refused, const std::string& version) {
    return !base::is_decimal_version(refused.version) || !base::is_decimal_version(version) ||
           base::compare_versions(refused.version, version) == 0;
}

std::optional<RefusedImage> find_bad_stored(const Snapshot& snapshot, const std::string& version) {
    for (const auto* list : {&snapshot.state.bad, &snapshot.guarded}) {
        for (const RefusedImage& refused : list->all()) {
            if (may_be(refused, version)) {
                return find_bad(snapshot, ad_sha256_file(snapshot.paths.stored_image.c_str()));
            }
        }
    }
    return std::nullopt;
}

std::optional<StoredImage> read_stored_image(const Snapshot& snapshot) {
    const std::string& path = snapshot.paths.stored_image;
    const std::size_t slash = path.rfind('/');
    const std::string name = path.substr(slash + 1);
    const auto store = DataDirectory::open(path.substr(0, slash));
    const auto size = store ? store->size_of(name) : std::nullopt;
    if (!size) {
        return std::nullopt;
    }
    StoredImage image;
    image.size = *size;
    auto trailer = ad_agent::read_image_trailer(*store, name);
    if (trailer) {
        image.trailer = std::move(*trailer);
    } else {
        image.trailer.rejection = trailer.error().message;
    }
    image.bad = find_bad_stored(snapshot, image.trailer.version);
    return image;
}

void read_data_directory(Snapshot& snapshot) {
    auto directory = DataDirectory::open(snapshot.paths.data_directory);
    if (!directory) {
        note_unreadable(snapshot.paths.data_directory, snapshot.unseen);
        return;
    }
    for (const char* name : {"state.ini", "guard.ini", "guard-bad.ini", "update.ini"}) {
        note_unreadable(directory->path_of(name), snapshot.unseen);
    }
    snapshot.state = ad_agent::read_state(*directory);
    snapshot.guarded = ad_agent::read_guard_list(*directory);
    snapshot.record = ad_guard::read_record(*directory);
    snapshot.index =
        ad_agent::read_cached_index(*directory, snapshot.paths.index_keys, snapshot.state);
    snapshot.directory = std::move(*directory);
}

}  // namespace

std::optional<RefusedImage> find_bad(const Snapshot& snapshot, const std::string& sha256) {
    const RefusedImage* found = snapshot.state.bad.find(sha256);
    if (!found) {
        found = snapshot.guarded.find(sha256);
    }
    return found ? std::optional<RefusedImage>(*found) : std::nullopt;
}

Snapshot read_snapshot() {
    Snapshot snapshot;
    snapshot.time = std::time(nullptr);
    snapshot.paths = ad_agent::device_paths();
    const ad_agent::DevicePaths& paths = snapshot.paths;
    snapshot.service =
        find_service(paths.updatable_library, paths.firmware_library, snapshot.unseen);
    read_data_directory(snapshot);
    note_unreadable(paths.stored_image, snapshot.unseen);
    snapshot.image = read_stored_image(snapshot);
    const bool has_version = snapshot.image && !snapshot.image->trailer.rejection;
    snapshot.facts = ad_agent::read_update_facts(
        paths, has_version ? snapshot.image->trailer.version : ad_agent::no_version,
        current_firmware(snapshot.has_platform, snapshot.unseen));
    note_unreadable(ad_guard::firmware_file, snapshot.unseen);
    snapshot.recorded_firmware = ad_guard::recorded_firmware();
    snapshot.product = ad_agent::read_product(paths.product);
    snapshot.facts.device.product = snapshot.product.value_or("");
    snapshot.settings = ad_agent::load_settings(paths.configuration);
    return snapshot;
}

}  // namespace ad_ctl
