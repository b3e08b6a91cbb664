#include "agent.h"

#include "cache_manifest.h"
#include "configuration_document.h"
#include "data_folder.h"
#include "image_update.h"
#include "log.h"
#include "settings.h"

namespace ad_agent {

Agent::Agent(std::string configuration, std::string data_folder)
    : m_configuration(std::move(configuration)), m_data_folder(std::move(data_folder)) {}

bool Agent::fetch_configuration(const std::string& url_path) const {
    std::string message;
    const auto settings = load_settings(m_configuration, message);
    const auto folder = settings ? DataFolder::open(m_data_folder, message) : std::nullopt;
    const bool kept = folder && keep_configuration_document(*settings, *folder, url_path, message);
    log_line("configuration document " + url_path + ": " + message);
    return kept;
}

bool Agent::update(const std::string& installed_version) const {
    std::string message;
    const auto settings = load_settings(m_configuration, message);
    const auto folder = settings ? DataFolder::open(m_data_folder, message) : std::nullopt;
    const bool downloaded =
        folder && download_newer_image(*settings, *folder, installed_version, message);
    log_line("update: " + message);
    return downloaded;
}

bool Agent::set_version(const std::string& version) const {
    std::string error;
    const auto folder = DataFolder::open(m_data_folder, error);
    const bool written =
        folder && write_cache_version(*folder, CACHE_MANIFEST_NAME, version, error);
    if (!written) log_line("cache manifest: " + error);
    return written;
}

std::string Agent::version() const {
    return read_cache_version(m_data_folder + "/" + CACHE_MANIFEST_NAME);
}

}  // namespace ad_agent
