#include "device.h"

#include "ADDigest.h"
#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "guard_log.h"
#include "regular_file.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ad_guard {
namespace {

constexpr char stored_image[] = "/opt/down/zels/zelADAgent_img/zelADAgent.img";
constexpr char boot_file[] = "/proc/sys/kernel/random/boot_id";

/** Reads a small file. What is missing or unreadable reads as empty. */
std::string read_text(const char* path) {
    constexpr std::uint64_t max_size = 4096;
    auto text = ad_agent::read_regular_file(AT_FDCWD, path, 0, max_size);
    return text ? std::move(*text) : "";
}

}  // namespace

bool hash_copy(std::string& sha256) {
    sha256 = ad_sha256_file(updatable_library);
    if (!sha256.empty() || errno == ENOENT || errno == ENOTDIR) {
        return true;
    }
    log_line(std::string("failed to read ") + updatable_library + ": " + base::errno_text(errno));
    return false;
}

std::string recorded_firmware() {
    constexpr std::size_t max_length = 128;
    // As it comes back from the record.
    return ad_agent::printable(read_text(firmware_file), max_length);
}

std::string boot_id() {
    // Not a file of a known size: the kernel makes up its contents when they are read.
    const base::UniqueFd file(open(boot_file, O_RDONLY | O_CLOEXEC));
    std::array<char, 64> text = {};
    if (!file || base::read_full(file.get(), text.data(), text.size() - 1) < 0) {
        return "";
    }
    return std::string(text.data(), strcspn(text.data(), "\n"));
}

std::int64_t monotonic_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

ad_agent::RefusedImage origin_of_copy(const ad_agent::DeviceState& state,
                                      const std::string& installed_before) {
    ad_agent::RefusedImage image;
    if (!state.installed_sha256.empty() && state.installed_sha256 != installed_before) {
        image.sha256 = state.installed_sha256;
        image.version = state.installed_version;
    } else {
        image.sha256 = ad_sha256_file(stored_image);
        image.version = state.offered_version;
    }
    return image;
}

std::optional<std::string> remove_copy() {
    // Through PATH, as the daemon runs it. It waits for its lock for no longer than 30 seconds.
    std::array<const char*, 4> command = {"ad-mounter", "--remove", "remove_usr_lib_file", nullptr};
    pid_t child = 0;
    const int error = posix_spawnp(&child, command[0], nullptr, nullptr,
                                   const_cast<char**>(command.data()), environ);
    if (error != 0) {
        return std::string("failed to run ad-mounter: ") + base::errno_text(error);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (access(updatable_library, F_OK) == 0) {
        return WIFEXITED(status)
                   ? "ad-mounter exited with status " + std::to_string(WEXITSTATUS(status))
                   : std::string("ad-mounter was killed");
    }
    return std::nullopt;
}

}  // namespace ad_guard
