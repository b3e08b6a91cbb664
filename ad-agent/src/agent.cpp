#include "agent.h"

#include "ADDigest.h"
#include "configuration_document.h"
#include "data_folder.h"
#include "device_state.h"
#include "image_update.h"
#include "log.h"
#include "manifest.h"
#include "settings.h"

namespace ad_agent {
namespace {

/** Notes the image whose libraries were just installed, until one of them has been loaded. */
bool remember_installation(const Places& places, const DataFolder& folder,
                           const std::string& version, std::string& error) {
    DeviceState state = read_state(folder);
    const std::string sha256 = ad_sha256_file(places.stored_image.c_str());
    if (sha256 != state.installed_sha256) state.installed_loaded = false;
    state.installed_sha256 = sha256;
    state.installed_version = version;
    state.repairs = 0;
    return write_state(folder, state, error);
}

}  // namespace

void Agent::loaded_from(const std::string& file, bool updatable_was_there) const {
    const bool is_updatable = file == m_places.updatable_library;
    if (!is_updatable && file != m_places.firmware_library) return;
    std::string error;
    const auto folder = DataFolder::open(m_places.data_folder, error);
    if (!folder) return;
    DeviceState state = read_state(*folder);
    if (state.installed_sha256.empty() || state.installed_loaded) return;

    if (is_updatable) {
        state.installed_loaded = true;
    } else {
        if (updatable_was_there) {
            log_line("the library of version " + state.installed_version +
                     " failed to load: its image will not be taken again");
            state.add_bad(state.installed_sha256);
        }
        state.installed_sha256.clear();
    }
    if (!write_state(*folder, state, error)) log_line(error);
}

bool Agent::fetch_configuration(const std::string& url_path) const {
    std::string message;
    const auto settings = load_settings(m_places.configuration, message);
    const auto folder = settings ? DataFolder::make(m_places.data_folder, message) : std::nullopt;
    const bool kept = folder && keep_configuration_document(*settings, *folder, url_path, message);
    log_line("configuration document " + url_path + ": " + message);
    return kept;
}

bool Agent::update(const std::string& stored_version) const {
    std::string message;
    const auto folder = DataFolder::make(m_places.data_folder, message);
    const bool offered = folder && offer_image(m_places, *folder, stored_version, message);
    log_line("update: " + message);
    return offered;
}

bool Agent::set_version(const std::string& version) const {
    std::string error;
    const auto folder = DataFolder::make(m_places.data_folder, error);
    // Before the manifest: a cut between them leaves an installation to be repaired.
    if (folder && !remember_installation(m_places, *folder, version, error)) log_line(error);
    const bool written =
        folder && write_cache_version(*folder, CACHE_MANIFEST_NAME, version, error);
    if (!written) log_line("cache manifest: " + error);
    return written;
}

std::string Agent::version() const {
    return read_cache_version(m_places.data_folder + "/" + CACHE_MANIFEST_NAME);
}

}  // namespace ad_agent
