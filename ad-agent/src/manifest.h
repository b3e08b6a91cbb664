/**
 * Manifests: small XML files that tell a version. The library's own is the cache
 * manifest, the version of the libraries that were installed last:
 *
 *     <Cache><SoVersion>1.05</SoVersion></Cache>
 *
 * The firmware's tells the version of the copy that came with it:
 *
 *     <Zel><Version>1.00</Version></Zel>
 */
#ifndef AD_AGENT_MANIFEST_H
#define AD_AGENT_MANIFEST_H

#include "data_folder.h"

#include <string>

namespace ad_agent {

/** The cache manifest's name in the data folder. */
inline constexpr char CACHE_MANIFEST_NAME[] = "zelADAgentCache.xml";

/** Reads the version, NO_VERSION when the manifest is missing, torn or empty. */
std::string read_cache_version(const std::string& path);

/** Reads the version of the firmware's copy, NO_VERSION when there is none. */
std::string read_firmware_copy_version(const std::string& path);

/** Replaces the cache manifest. @return whether it did, with the reason in error */
bool write_cache_version(const DataFolder& folder, const std::string& name,
                         const std::string& version, std::string& error);

}  // namespace ad_agent

#endif
