/**
 * Small documents from the content server, cached so that they are transferred again
 * only after they have changed.
 */
#pragma once

#include "data_directory.h"
#include "result.h"
#include "settings.h"
#include "transfer_request.h"

#include <cstdint>
#include <functional>
#include <string>

namespace ad_agent {

/** Returns a request with the configured server, authorities and time-outs of a document. */
TransferRequest make_request(const Settings& settings, const std::string& url_path);

struct CachedDocument {
    std::string text;
    /** Whether the server has just sent it, rather than confirmed the cached one. */
    bool is_modified = false;
};

struct DocumentSource {
    /** Below the server's URL. */
    std::string url_path;
    /** The file in the data directory. */
    std::string name;
    std::uint64_t max_bytes = 0;
    /** Checks the contents. */
    std::function<Result<>(const std::string& text)> validate;
};

/** Fetches a document without looking at the cache or storing it. The error names the URL. */
Result<std::string> fetch_uncached(const Settings& settings, const DocumentSource& source);

/**
 * Fetches a document, unless the cached one is up to date, and caches it if it is valid.
 * It is transferred into memory: an invalid one never touches a file. The error names
 * the URL.
 */
Result<CachedDocument> fetch_document(const Settings& settings, const DataDirectory& directory,
                                      const DocumentSource& source);

}  // namespace ad_agent
