/**
 * The index that the content server has, if it is believed.
 */
#pragma once

#include "data_directory.h"
#include "device_state.h"
#include "result.h"
#include "settings.h"
#include "update_index.h"

#include <optional>
#include <string>

namespace ad_agent {

/** The URL of a server's index. */
std::string index_url(const Settings& settings);

/**
 * Fetches the index, unless the cached one is up to date, and accepts it, see accept_index(). Its
 * serial number is in the state, durably, when this returns. Logs that an index is not
 * authenticated.
 * @param key_directory  with the keys that an index is signed with
 */
Result<UpdateIndex> fetch_index(const Settings& settings, const DataDirectory& directory,
                                const std::string& key_directory, DeviceState& state);

/** Accepts the cached index as it is now; none if there is none. Stores and logs nothing. */
Result<std::optional<UpdateIndex>> read_cached_index(const DataDirectory& directory,
                                                     const std::string& key_directory,
                                                     const DeviceState& state);

/** Fetches the index as fetch_index() does. Stores and logs nothing. */
Result<UpdateIndex> probe_index(const Settings& settings, const std::string& key_directory,
                                const DeviceState& state);

}  // namespace ad_agent
