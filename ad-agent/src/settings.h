/**
 * The configuration file: the content server and the time-outs.
 */
#pragma once

#include "result.h"

#include <string>

namespace ad_agent {

struct Settings {
    /** The content server's base URL (http, https or file), without a trailing slash. */
    std::string server_url;

    /** Whether an https server must present a valid certificate. */
    bool verify = true;
    /** PEM file of the certificate authorities to trust; empty for those of the system. */
    std::string authorities;

    /** Time-outs in seconds: until a connection is established, ... */
    int connect_timeout = 10;
    /** ... without any data, ... */
    int stall_timeout = 20;
    /** ... for a configuration document or the index as a whole, ... */
    int document_timeout = 30;
    /** ... and for an image as a whole. */
    int image_timeout = 900;
};

/**
 * Reads the key file `path` (GKeyFile). The error names the file and the key. Logs keys that are
 * not known.
 */
Result<Settings> load_settings(const std::string& path);

}  // namespace ad_agent
