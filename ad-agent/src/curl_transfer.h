/**
 * The part of a transfer that runs in its own process.
 */
#pragma once

#include "transfer_request.h"

namespace ad_agent {

/** Loads libcurl into this process and transfers a file with it. The error lacks the URL. */
TransferResult run_curl_transfer(const TransferRequest& request);

}  // namespace ad_agent
