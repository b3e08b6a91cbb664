/**
 * Validators (RFC 9110, 8.8): what a server said of a file so that it can be asked
 * whether the file has changed, an ETag or else the time of Last-Modified. One is
 * kept beside its file, as "NAME.validator".
 */
#ifndef AD_AGENT_VALIDATOR_H
#define AD_AGENT_VALIDATOR_H

#include "data_folder.h"

#include <string>

namespace ad_agent {

/** Whether a text is one that may be kept and sent: short, and printable ASCII. */
bool is_validator(const std::string& text);

/** Whether it is an ETag rather than a time. */
bool is_etag(const std::string& validator);

/** Whether it stands for the same bytes (RFC 9110, 13.1.5), as going on by range needs. */
bool is_strong(const std::string& validator);

/**
 * Reads the validator that was kept for a file.
 * @param source  what it must have been kept for: the file's URL or digest
 * @return an empty text when there is none, or none for this source
 */
std::string read_validator(const DataFolder& folder, const std::string& name,
                           const std::string& source);

/** Keeps a validator for a file, or removes the old one when it is not a usable text. */
bool keep_validator(const DataFolder& folder, const std::string& name, const std::string& source,
                    const std::string& validator, std::string& error);

void remove_validator(const DataFolder& folder, const std::string& name);

}  // namespace ad_agent

#endif
