#include "settings.h"

#include "base/glib_owned.h"
#include "log.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace ad_agent {
namespace {

constexpr int max_timeout = 86400;
constexpr std::array<std::string_view, 7> known_keys = {
    "[server] url",     "[server] authorities", "[server] verify", "[timeouts] connect",
    "[timeouts] stall", "[timeouts] document",  "[timeouts] image"};
constexpr std::array<std::string_view, 3> schemes = {"http://", "https://", "file:///"};

struct Timeout {
    const char* key;
    int Settings::*seconds;
};
constexpr std::array<Timeout, 4> timeouts = {{{"connect", &Settings::connect_timeout},
                                              {"stall", &Settings::stall_timeout},
                                              {"document", &Settings::document_timeout},
                                              {"image", &Settings::image_timeout}}};

/** Returns a base URL without trailing slashes, or an empty string if it is not valid. */
std::string base_url(const std::string& url) {
    for (const std::string_view scheme : schemes) {
        if (url.compare(0, scheme.size(), scheme) != 0) {
            continue;
        }
        const std::size_t end = url.find_last_not_of('/');
        const bool has_more = end != std::string::npos && end >= scheme.size();
        const bool is_base = url.find_first_of("?# \t") == std::string::npos;
        return has_more && is_base ? url.substr(0, end + 1) : "";
    }
    return "";
}

/** Whether a value could not be read because the file lacks it. */
bool is_absent(const base::Owned<GError>& error) {
    return g_error_matches(error.get(), G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND) ||
           g_error_matches(error.get(), G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_GROUP_NOT_FOUND);
}

std::string read_text(GKeyFile* file, const char* key) {
    const base::Owned<char> text(g_key_file_get_string(file, "server", key, nullptr));
    return text ? text.get() : "";
}

Result<> read_timeout(GKeyFile* file, const Timeout& timeout, Settings& settings) {
    GError* error = nullptr;
    const int value = g_key_file_get_integer(file, "timeouts", timeout.key, &error);
    const base::Owned<GError> owned(error);
    if (is_absent(owned)) {
        return {};
    }
    if (value < 1 || value > max_timeout) {  // 0 if it is no integer
        return failure(std::string("[timeouts] ") + timeout.key + " must be an integer from 1 to " +
                       std::to_string(max_timeout));
    }
    settings.*timeout.seconds = value;
    return {};
}

Result<> read_verify(GKeyFile* file, Settings& settings) {
    GError* error = nullptr;
    const bool verify = g_key_file_get_boolean(file, "server", "verify", &error) != FALSE;
    const base::Owned<GError> owned(error);
    if (is_absent(owned)) {
        return {};
    }
    if (error) {
        return failure("[server] verify must be true or false");
    }
    settings.verify = verify;
    return {};
}

Result<Settings> read_settings(GKeyFile* file) {
    Settings settings;
    settings.server_url = base_url(read_text(file, "url"));
    if (settings.server_url.empty()) {
        return failure("[server] url must be an http://, https:// or file:/// URL");
    }
    settings.authorities = read_text(file, "authorities");
    const auto verify = read_verify(file, settings);
    if (!verify) {
        return Failure(verify.error());
    }
    for (const Timeout& timeout : timeouts) {
        const auto read = read_timeout(file, timeout, settings);
        if (!read) {
            return Failure(read.error());
        }
    }
    return settings;
}

/** Logs the keys that mean nothing here, such as misspelt ones. */
void warn_of_unknown_keys(GKeyFile* file, const std::string& path) {
    gsize group_count = 0;
    gchar** const groups = g_key_file_get_groups(file, &group_count);
    for (const std::string& group : std::vector<std::string>(groups, groups + group_count)) {
        gsize key_count = 0;
        gchar** const keys = g_key_file_get_keys(file, group.c_str(), &key_count, nullptr);
        for (const std::string& key : std::vector<std::string>(keys, keys + key_count)) {
            const std::string name = "[" + group + "] " + key;
            if (std::find(known_keys.begin(), known_keys.end(), name) == known_keys.end()) {
                log_line("configuration " + path + ": ignoring unknown key " + name);
            }
        }
        g_strfreev(keys);
    }
    g_strfreev(groups);
}

}  // namespace

Result<Settings> load_settings(const std::string& path) {
    const base::Owned<GKeyFile> file(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &error)) {
        return failure("failed to read configuration " + path + ": " +
                       base::Owned<GError>(error)->message);
    }
    warn_of_unknown_keys(file.get(), path);
    auto settings = read_settings(file.get());
    if (!settings) {
        settings.error().message.insert(0, "invalid configuration " + path + ": ");
    }
    return settings;
}

}  // namespace ad_agent
