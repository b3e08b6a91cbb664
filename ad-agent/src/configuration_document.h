/**
 * The configuration documents of the content server's services.
 */
#pragma once

#include "data_directory.h"
#include "result.h"
#include "settings.h"

#include <string>

namespace ad_agent {

/**
 * Returns the name that the document of a URL path is stored under: "TileAd-v2.json"
 * for "/TileAd/v2". Empty unless the path consists of names of letters, digits and
 * underscores.
 */
std::string document_name(const std::string& url_path);

/**
 * Fetches a document and stores it in the data directory. On failure the previously
 * stored one is kept.
 * @return what was done, for the log
 */
Result<std::string> fetch_configuration_document(const Settings& settings,
                                                 const DataDirectory& directory,
                                                 const std::string& url_path);

}  // namespace ad_agent
