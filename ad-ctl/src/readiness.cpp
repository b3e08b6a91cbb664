#include "readiness.h"

#include "base/errno_text.h"
#include "base/glib_owned.h"
#include "image_download.h"
#include "part_file.h"
#include "trusted_file.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace ad_ctl {
namespace {

using ad_agent::DataDirectory;

/** Where ad-mounter has its keys. */
constexpr char key_directory[] = "/usr/lib/ad-mounter/keys";

Check ok(const char* name, const std::string& detail) { return {name, CheckState::ok, detail}; }

Check failed(const char* name, const std::string& detail) {
    return {name, CheckState::failed, detail};
}

std::string counted(std::size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

Check check_daemon(const Snapshot& snapshot) {
    constexpr char name[] = "daemon";
    switch (snapshot.service.state) {
        case ServiceState::running:
            return ok(name, "running");
        case ServiceState::starting:
            return ok(name, "starting or waiting for its restart");
        default:
            return failed(name, snapshot.service.state == ServiceState::failed
                                    ? "adagentd has failed and is not restarted"
                                    : "adagentd does not run");
    }
}

Check check_library(const Snapshot& snapshot) {
    constexpr char name[] = "library";
    if (snapshot.facts.has_copy || access(snapshot.paths.firmware_library.c_str(), F_OK) == 0) {
        return ok(name, "installed");
    }
    return failed(name, "no agent library: neither " + snapshot.paths.updatable_library + " nor " +
                            snapshot.paths.firmware_library);
}

Check check_settings(const Snapshot& snapshot) {
    constexpr char name[] = "configuration";
    return snapshot.settings ? ok(name, snapshot.paths.configuration)
                             : failed(name, snapshot.settings.error().message);
}

/** Keys of indexes may be missing: then an index is believed as it is. */
Check check_index_keys(const Snapshot& snapshot) {
    constexpr char name[] = "index-keys";
    const auto keys = ad_agent::load_index_keys(snapshot.paths.index_keys);
    if (!keys) {
        return failed(name, keys.error().message);
    }
    return ok(name, keys->empty() ? "none: the index is not authenticated"
                                  : counted(keys->size(), "key"));
}

Check check_tool(const Snapshot& snapshot) {
    constexpr char name[] = "tool";
    // systemd's default search path; see environment.d(5).
    constexpr std::array<const char*, 4> directories = {"/usr/local/sbin/", "/usr/local/bin/",
                                                        "/usr/sbin/", "/usr/bin/"};
    for (const char* directory : directories) {
        const std::string path = std::string(directory) + "ad-mounter";
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        const bool is_privileged = status.st_uid == 0 && (status.st_mode & S_ISUID) != 0;
        const bool is_for_user =
            snapshot.service.state == ServiceState::running && snapshot.service.user != 0;
        if (!is_privileged && is_for_user) {
            return failed(name,
                          path + " is not set-user-ID root, and adagentd does not run as root");
        }
        return ok(name, path + (is_privileged ? ", set-user-ID root" : ", for root only"));
    }
    return failed(name, "ad-mounter is not installed");
}

Check check_image_keys() {
    constexpr char name[] = "key";
    const auto keys = load_image_keys();
    if (!keys) {
        return failed(name, keys.error().message);
    }
    if (keys->empty()) {
        return failed(name, std::string("no public key in ") + key_directory);
    }
    return ok(name, counted(keys->size(), "key"));
}

Check check_product(const Snapshot& snapshot) {
    constexpr char name[] = "product";
    if (!snapshot.product) {
        return failed(name, snapshot.product.error().message);
    }
    return ok(name, snapshot.product->empty() ? "none" : *snapshot.product);
}

Check check_loop() {
    constexpr char name[] = "loop";
    constexpr char control[] = "/dev/loop-control";
    struct stat status = {};
    if (stat(control, &status) != 0) {
        return failed(name, std::string(control) + ": " + base::errno_text(errno));
    }
    return S_ISCHR(status.st_mode) ? ok(name, control)
                                   : failed(name, std::string(control) + " is no device");
}

/** Finds the holder in /proc/locks, see proc(5): taking the lock could make the tool wait. */
Check check_lock() {
    constexpr char name[] = "lock";
    constexpr char lock[] = "/run/ad-mounter/lock";
    struct stat status = {};
    if (stat(lock, &status) != 0) {
        const bool is_missing = errno == ENOENT;
        return is_missing ? ok(name, "never taken since the boot")
                          : Check{name, CheckState::unseen,
                                  std::string(lock) + ": " + base::errno_text(errno)};
    }
    gchar* text = nullptr;
    g_file_get_contents("/proc/locks", &text, nullptr, nullptr);
    const base::Owned<char> locks(text);
    std::array<char, 64> file = {};
    std::snprintf(file.data(), file.size(), "%02x:%02x:%" PRIuMAX, major(status.st_dev),
                  minor(status.st_dev), static_cast<std::uintmax_t>(status.st_ino));
    std::istringstream lines(locks ? locks.get() : "");
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string advisory;
        std::string access_mode;
        std::string process;
        std::string held_file;
        words >> number >> kind >> advisory >> access_mode >> process >> held_file;
        if (kind == "FLOCK" && held_file == file.data()) {
            return ok(name, "held by process " + process);
        }
    }
    return ok(name, "free");
}

/** Whether the rest of the index's image fits, and then the image into the store. */
Check check_room(const Snapshot& snapshot) {
    constexpr char name[] = "room";
    const auto directory = DataDirectory::open(snapshot.directory ? snapshot.paths.data_directory
                                                                  : std::string("/opt"));
    struct statvfs status = {};
    if (!directory || fstatvfs(directory->fd(), &status) != 0) {
        return {name, CheckState::unseen, snapshot.paths.data_directory};
    }
    const bool has_index = snapshot.index && *snapshot.index;
    const std::uint64_t size = has_index ? (*snapshot.index)->size : 0;
    const std::uint64_t received =
        snapshot.directory
            ? snapshot.directory->size_of(std::string(ad_agent::image_name) + ad_agent::part_suffix)
                  .value_or(0)
            : 0;
    const auto room = directory->require_space(size - std::min(size, received));
    if (!room) {
        return failed(name, room.error().message);
    }
    const std::string& image = snapshot.paths.stored_image;
    const auto store = DataDirectory::open(image.substr(0, image.rfind('/')));
    const auto store_room = store ? store->require_space(size) : ad_agent::Result<>();
    if (!store_room) {
        return failed(name, store_room.error().message);
    }
    const std::uint64_t available = static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
    constexpr std::uint64_t mebi = 1024ULL * 1024;
    return ok(name, std::to_string(available / mebi) + " MiB available in " + directory->path());
}

}  // namespace

ad_agent::Result<ad_agent::IndexKeys> load_image_keys() {
    constexpr std::size_t max_keys = 16;
    constexpr std::uint64_t max_size = 1024;
    const auto texts = ad_agent::read_trusted_files(key_directory, ".pub", max_keys, max_size);
    if (!texts) {
        return ad_agent::Failure(texts.error());
    }
    ad_agent::IndexKeys keys;
    for (const std::string& text : *texts) {
        base::PublicKey key = {};
        if (!base::parse_public_key(text, key)) {
            return ad_agent::failure(std::string("malformed public key in ") + key_directory);
        }
        keys.push_back(key);
    }
    return keys;
}

std::vector<Check> check_readiness(const Snapshot& snapshot) {
    std::vector<Check> checks = {check_daemon(snapshot),
                                 check_library(snapshot),
                                 check_settings(snapshot),
                                 check_index_keys(snapshot),
                                 check_room(snapshot),
                                 check_tool(snapshot),
                                 check_image_keys(),
                                 check_product(snapshot),
                                 check_loop(),
                                 check_lock()};
    // What this user may not read says nothing about the daemon.
    const std::string denied = base::errno_text(EACCES);
    for (Check& check : checks) {
        const std::size_t size = check.detail.size();
        if (check.state == CheckState::failed && size >= denied.size() &&
            check.detail.compare(size - denied.size(), denied.size(), denied) == 0) {
            check.state = CheckState::unseen;
        }
    }
    return checks;
}

const char* name_of(CheckState state) {
    switch (state) {
        case CheckState::ok:
            return "ok";
        case CheckState::failed:
            return "failed";
        default:
            return "not_seen";
    }
}

}  // namespace ad_ctl
