/**
 * Small documents from the content server.
 */
#ifndef AD_AGENT_FETCH_H
#define AD_AGENT_FETCH_H

#include "settings.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/**
 * Fetches a document by way of memory, so that a bad one leaves no file behind.
 * @param url_path   its path below the server's URL, with a leading slash
 * @param max_bytes  a longer document is refused
 * @return its text, or none with the URL and the reason in error
 */
std::optional<std::string> fetch_text(const Settings& settings, const std::string& url_path,
                                      std::uint64_t max_bytes, std::string& error);

}  // namespace ad_agent

#endif
