#include "settings.h"

#include "glib_owned.h"

#include <array>
#include <string_view>

namespace ad_agent {
namespace {

constexpr int MAX_TIMEOUT = 86400;
constexpr std::array<std::string_view, 3> SCHEMES = {"http://", "https://", "file:///"};

/** Checks a base URL and takes the slashes off its end; gives an empty text for a bad one. */
std::string base_url(const std::string& url) {
    for (const std::string_view scheme : SCHEMES) {
        if (url.compare(0, scheme.size(), scheme) != 0) continue;
        const std::size_t end = url.find_last_not_of('/');
        const bool has_more = end != std::string::npos && end >= scheme.size();
        const bool is_base = url.find_first_of("?# \t") == std::string::npos;
        return has_more && is_base ? url.substr(0, end + 1) : "";
    }
    return "";
}

/** Whether a reading failed because the file does not have the key. */
bool is_absent(const GError* failure) {
    return g_error_matches(failure, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND) ||
           g_error_matches(failure, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_GROUP_NOT_FOUND);
}

/** Reads a time-out into seconds, which keeps its default when the key is not there. */
bool read_timeout(GKeyFile* file, const char* key, int& seconds, std::string& error) {
    GError* failure = nullptr;
    const int value = g_key_file_get_integer(file, "timeouts", key, &failure);
    const OwnedError owned(failure);
    if (is_absent(failure)) return true;
    if (failure || value < 1 || value > MAX_TIMEOUT) {
        error = std::string("[timeouts] ") + key + " must be whole seconds from 1 to " +
                std::to_string(MAX_TIMEOUT);
        return false;
    }
    seconds = value;
    return true;
}

/** Reads how an https server is verified. */
bool read_verification(GKeyFile* file, Settings& settings, std::string& error) {
    GError* failure = nullptr;
    const bool verify = g_key_file_get_boolean(file, "server", "verify", &failure) != FALSE;
    const OwnedError owned(failure);
    if (failure && !is_absent(failure)) {
        error = "[server] verify must be true or false";
        return false;
    }
    if (!failure) settings.verify = verify;
    const OwnedText authorities(g_key_file_get_string(file, "server", "authorities", nullptr));
    if (authorities) settings.authorities = authorities.get();
    return true;
}

bool read_settings(GKeyFile* file, Settings& settings, std::string& error) {
    const OwnedText url(g_key_file_get_string(file, "server", "url", nullptr));
    settings.server_url = url ? base_url(url.get()) : "";
    if (settings.server_url.empty()) {
        error = "[server] url must be an http://, https:// or file:// URL";
        return false;
    }
    return read_verification(file, settings, error) &&
           read_timeout(file, "connect", settings.connect_timeout, error) &&
           read_timeout(file, "stall", settings.stall_timeout, error) &&
           read_timeout(file, "document", settings.document_timeout, error) &&
           read_timeout(file, "image", settings.image_timeout, error);
}

}  // namespace

std::optional<Settings> load_settings(const std::string& path, std::string& error) {
    const OwnedKeyFile file(g_key_file_new());
    GError* failure = nullptr;
    if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &failure)) {
        error = "configuration " + path + ": " + OwnedError(failure)->message;
        return std::nullopt;
    }
    Settings settings;
    if (!read_settings(file.get(), settings, error)) {
        error.insert(0, "configuration " + path + ": ");
        return std::nullopt;
    }
    return settings;
}

}  // namespace ad_agent
