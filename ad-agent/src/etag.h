/**
 * Entity tags (RFC 9110, section 8.8.3), which a server is asked with whether a file
 * has changed. One is stored beside its file, as "NAME.validator". Last-Modified is
 * not used: its resolution of a second hides the second of two publications.
 */
#pragma once

#include "data_directory.h"
#include "result.h"

#include <string>

namespace ad_agent {

/** Whether `text` is an entity tag worth storing: short and printable ASCII. */
bool is_etag(const std::string& text);

/** Whether `etag` identifies the same bytes (RFC 9110, section 8.8.1), as ranges require. */
bool is_strong_etag(const std::string& etag);

/**
 * Reads the entity tag of the file `name`.
 * @param source  what it must have been stored for: the file's URL or digest
 * @return an empty string if none is stored, or none for this source
 */
std::string read_etag(const DataDirectory& directory, const std::string& name,
                      const std::string& source);

/** Stores the entity tag of the file `name`; removes the stored one if `etag` is none. */
Result<> store_etag(const DataDirectory& directory, const std::string& name,
                    const std::string& source, const std::string& etag);

void remove_etag(const DataDirectory& directory, const std::string& name);

}  // namespace ad_agent
