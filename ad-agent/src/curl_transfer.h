/**
 * What a transfer's own process does.
 */
#ifndef AD_AGENT_CURL_TRANSFER_H
#define AD_AGENT_CURL_TRANSFER_H

#include "transfer.h"

#include <string>

namespace ad_agent {

/**
 * Loads libcurl into this process and fetches a URL in it.
 * @return whether all of it arrived, with the reason in error
 */
bool run_curl_transfer(const TransferRequest& request, std::string& error);

}  // namespace ad_agent

#endif
