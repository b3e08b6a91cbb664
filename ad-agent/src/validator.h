/**
 * Validators (RFC 9110, 8.8): the ETag that a server gave with a file, so that it
 * can be asked whether the file has changed. One is kept beside its file, as
 * "NAME.validator". A time of Last-Modified is not used: its seconds are too coarse
 * for an index that is published twice in one.
 */
#ifndef AD_AGENT_VALIDATOR_H
#define AD_AGENT_VALIDATOR_H

#include "data_folder.h"

#include <string>

namespace ad_agent {

/** Whether a text is an ETag that may be kept and sent: short, and printable ASCII. */
bool is_validator(const std::string& text);

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
