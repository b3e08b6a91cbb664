/**
 * The configuration documents of the content server's services.
 */
#ifndef AD_AGENT_CONFIGURATION_DOCUMENT_H
#define AD_AGENT_CONFIGURATION_DOCUMENT_H

#include "data_folder.h"
#include "settings.h"

#include <string>

namespace ad_agent {

/**
 * Gives the name that the document of a URL path is kept under: "/TileAd/v2" is
 * "TileAd-v2.json". Empty when the path is not one of plain names.
 */
std::string document_name(const std::string& url_path);

/**
 * Fetches a document and keeps it in the data folder. The one kept before stays
 * when that fails.
 * @param message  gets where the document is, or why there is no new one
 * @return whether it is kept
 */
bool keep_configuration_document(const Settings& settings, const DataFolder& folder,
                                 const std::string& url_path, std::string& message);

}  // namespace ad_agent

#endif
