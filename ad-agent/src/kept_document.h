/**
 * Small documents from the content server, kept so that they are sent again only
 * when they have changed.
 */
#ifndef AD_AGENT_KEPT_DOCUMENT_H
#define AD_AGENT_KEPT_DOCUMENT_H

#include "data_folder.h"
#include "settings.h"
#include "transfer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace ad_agent {

/** Starts a request with the configured server, authorities and time limits. */
TransferRequest request_for(const Settings& settings, const std::string& url_path);

struct KeptDocument {
    std::string text;
    /** Whether the server has sent it just now, rather than said that it is the same. */
    bool is_new = false;
};

/** Where a document comes from, where it is kept, and what makes it a good one. */
struct DocumentSource {
    std::string url_path;
    std::string name;
    std::uint64_t max_bytes = 0;
    /** Gives what is wrong with a text, empty for nothing. */
    std::function<std::string(const std::string& text)> problem_of;
};

/**
 * Asks the server for a document unless it is still the kept one, and keeps it if
 * it is good. It travels by way of memory, so that a bad one touches no file.
 * @return the document, or none with the URL and the reason in error
 */
std::optional<KeptDocument> fetch_document(const Settings& settings, const DataFolder& folder,
                                           const DocumentSource& source, std::string& error);

}  // namespace ad_agent

#endif
