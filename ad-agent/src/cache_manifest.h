/**
 * The cache manifest: the version of the libraries that were installed last.
 *
 *     <Cache><SoVersion>1.05</SoVersion></Cache>
 */
#ifndef AD_AGENT_CACHE_MANIFEST_H
#define AD_AGENT_CACHE_MANIFEST_H

#include "data_folder.h"

#include <string>

namespace ad_agent {

/** Reads the version, NO_VERSION when the manifest is missing, torn or empty. */
std::string read_cache_version(const std::string& path);

/** Replaces the manifest. @return whether it did, with the reason in error */
bool write_cache_version(const DataFolder& folder, const std::string& name,
                         const std::string& version, std::string& error);

}  // namespace ad_agent

#endif
