/**
 * What a transfer's own process does.
 */
#ifndef AD_AGENT_CURL_TRANSFER_H
#define AD_AGENT_CURL_TRANSFER_H

#include "transfer.h"

namespace ad_agent {

/** Loads libcurl into this process and fetches a URL in it; the error is without the URL. */
TransferResult run_curl_transfer(const TransferRequest& request);

}  // namespace ad_agent

#endif
