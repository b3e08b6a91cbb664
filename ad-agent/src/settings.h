/**
 * The configuration file: where the content server is and how long to wait for it.
 */
#ifndef AD_AGENT_SETTINGS_H
#define AD_AGENT_SETTINGS_H

#include <optional>
#include <string>

namespace ad_agent {

struct Settings {
    /** The content server's base URL (http, https or file), without a slash at its end. */
    std::string server_url;

    /** Whether the certificate of an https server must be good. */
    bool verify = true;
    /** A file of the authorities to believe (PEM) instead of the system's; empty for those. */
    std::string authorities;

    /** Seconds until a connection must stand. */
    int connect_timeout = 10;
    /** Seconds without a byte after which a transfer is given up. */
    int stall_timeout = 20;
    /** Seconds that a configuration document or the index may take in all. */
    int document_timeout = 30;
    /** Seconds that an image may take in all. */
    int image_timeout = 900;
};

/**
 * Reads a key file (GLib's GKeyFile).
 * @return the settings, or none with the reason, path included, in error
 */
std::optional<Settings> load_settings(const std::string& path, std::string& error);

}  // namespace ad_agent

#endif
