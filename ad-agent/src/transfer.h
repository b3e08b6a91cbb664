/**
 * Transfers from a URL into a file descriptor.
 *
 * Each one runs in a process of its own. That process alone loads libcurl: the host,
 * which is idle most of the time, is spared libcurl's memory and start-up, and can end
 * a transfer whatever state libcurl is in.
 */
#pragma once

#include "transfer_request.h"

namespace ad_agent {

/**
 * Runs a transfer to its end: for at most the request's total_timeout and two seconds.
 * A signal handler that runs in the calling thread meanwhile ends it, since the host is
 * then being stopped. The error names the URL and the reason.
 */
TransferResult transfer(const TransferRequest& request);

}  // namespace ad_agent
