/**
 * Manifests: small XML files with a version. The library writes one, the cache
 * manifest, with the version of the libraries that were installed last:
 *
 *     <Cache><SoVersion>1.05</SoVersion></Cache>
 *
 * The firmware's has the version of the copy that came with it:
 *
 *     <Zel><Version>1.00</Version></Zel>
 */
#pragma once

#include "data_directory.h"
#include "result.h"

#include <string>

namespace ad_agent {

/** The cache manifest's name in the data directory. */
inline constexpr char cache_manifest_name[] = "zelADAgentCache.xml";

/** Reads the installed version; no_version if the manifest is missing, torn or empty. */
std::string read_cache_version(const std::string& path);

/** Reads the version of the firmware's copy; no_version if there is none. */
std::string read_firmware_copy_version(const std::string& path);

/** Replaces the cache manifest. `version` is UTF-8 text. */
Result<> write_cache_version(const DataDirectory& directory, const std::string& version);

}  // namespace ad_agent
