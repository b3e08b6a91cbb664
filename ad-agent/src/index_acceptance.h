/**
 * Deciding whether an index is believed.
 */
#pragma once

#include "device_state.h"
#include "index_signature.h"
#include "result.h"
#include "update_index.h"

#include <cstdint>
#include <string>

namespace ad_agent {

/**
 * Returns the serial numbers of installed keys. Those of a key that was withdrawn do not count,
 * or else whoever stole it could rule out all later indexes with a high number.
 */
IndexSerials serials_of(const IndexKeys& keys, const IndexSerials& all);

/** An index that was accepted. */
struct AcceptedIndex {
    UpdateIndex index;
    /** ID of the key that signed it, and its serial number; empty and 0 if no key is installed. */
    std::string key_id;
    std::uint64_t serial = 0;
};

/**
 * Accepts an index as it is if there are no keys; otherwise one that is signed by one of
 * them, not older than any that was accepted from these keys, and not expired. A clock that
 * is before the index was issued is not set, and cannot tell whether it has expired.
 * @param serials  those of the indexes that were accepted
 * @param now      the time in seconds since 1970
 */
Result<AcceptedIndex> accept_index(const std::string& document, const IndexKeys& keys,
                                   const IndexSerials& serials, std::int64_t now);

}  // namespace ad_agent
