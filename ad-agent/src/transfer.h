/**
 * Transfers from a URL into a file descriptor.
 *
 * Each one runs in a process of its own. That process alone loads libcurl, so
 * that the host, which waits most of its life, does not carry libcurl's memory
 * and start-up; and whatever happens to a transfer, the host can end it.
 */
#ifndef AD_AGENT_TRANSFER_H
#define AD_AGENT_TRANSFER_H

#include <cstdint>
#include <string>

namespace ad_agent {

struct TransferRequest {
    /** http, https or file. */
    std::string url;
    /** Where the bytes go. */
    int fd = -1;
    /** More bytes than these end the transfer. */
    std::uint64_t max_bytes = 0;
    /** Seconds until the connection stands, without a byte, and in all. */
    int connect_timeout = 0;
    int stall_timeout = 0;
    int total_timeout = 0;
};

/**
 * Fetches a URL and waits for it, for total_timeout and at most two seconds more.
 * A signal handler that runs meanwhile ends it: the host is being stopped.
 * @return whether all of it arrived, with the URL and the reason in error
 */
bool transfer(const TransferRequest& request, std::string& error);

}  // namespace ad_agent

#endif
