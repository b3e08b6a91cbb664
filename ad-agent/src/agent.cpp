#include "agent.h"

#include "ADDigest.h"
#include "configuration_document.h"
#include "data_directory.h"
#include "device_state.h"
#include "image_update.h"
#include "log.h"
#include "manifest.h"
#include "settings.h"

#include <ctime>

namespace ad_agent {
namespace {

/** Logs what an operation did or why it failed. Returns whether it succeeded. */
bool log_result(const std::string& operation, const Result<std::string>& result) {
    log_line(operation + ": " + (result ? *result : result.error().message));
    return result.has_value();
}

/** Records the image whose libraries were just installed. */
Result<> record_installation(const DevicePaths& paths, const DataDirectory& directory,
                             const std::string& version) {
    DeviceState state = read_state(directory);
    const std::string sha256 = ad_sha256_file(paths.stored_image.c_str());
    if (sha256 != state.installed_sha256) {
        state.installed_loaded = false;
    }
    state.installed_sha256 = sha256;
    state.installed_version = version;
    state.repairs = 0;
    return write_state(directory, state);
}

}  // namespace

void Agent::report_loaded_library(const std::string& file, bool had_updatable) const {
    const bool is_updatable = file == paths_.updatable_library;
    if (!is_updatable && file != paths_.firmware_library) {
        return;
    }
    const auto directory = DataDirectory::open(paths_.data_directory);
    if (!directory) {
        return;
    }
    DeviceState state = read_state(*directory);
    if (state.installed_sha256.empty() || state.installed_loaded) {
        return;
    }
    if (is_updatable) {
        state.installed_loaded = true;
    } else {
        if (had_updatable) {
            log_line("the library of version " + state.installed_version +
                     " failed to load; its image will not be installed again");
            state.bad.add({state.installed_sha256, state.installed_version, std::time(nullptr),
                           "its library failed to load"});
        }
        state.installed_sha256.clear();
    }
    const auto written = write_state(*directory, state);
    if (!written) {
        log_line(written.error().message);
    }
}

bool Agent::fetch_configuration(const std::string& url_path) const {
    const auto fetch = [&]() -> Result<std::string> {
        const auto settings = load_settings(paths_.configuration);
        if (!settings) {
            return Failure(settings.error());
        }
        const auto directory = DataDirectory::create(paths_.data_directory);
        if (!directory) {
            return Failure(directory.error());
        }
        return fetch_configuration_document(*settings, *directory, url_path);
    };
    return log_result("configuration document " + url_path, fetch());
}

bool Agent::update(const std::string& stored_version) const {
    const auto directory = DataDirectory::create(paths_.data_directory);
    return log_result("update", directory ? offer_image(paths_, *directory, stored_version)
                                          : Failure(directory.error()));
}

bool Agent::set_version(const std::string& version) const {
    const auto directory = DataDirectory::create(paths_.data_directory);
    if (!directory) {
        log_line(directory.error().message);
        return false;
    }
    // Before the manifest: a power failure in between leaves an installation to repair.
    const auto recorded = record_installation(paths_, *directory, version);
    if (!recorded) {
        log_line(recorded.error().message);
    }
    const auto written = write_cache_version(*directory, version);
    if (!written) {
        log_line(written.error().message);
    }
    return written.has_value();
}

std::string Agent::version() const {
    return read_cache_version(paths_.data_directory + "/" + cache_manifest_name);
}

}  // namespace ad_agent
