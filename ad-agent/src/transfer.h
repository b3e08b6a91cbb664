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
#include <functional>
#include <string>

namespace ad_agent {

struct TransferRequest {
    /** http, https or file. */
    std::string url;
    /** Whether the certificate of an https server must be good, and by whose authority. */
    bool verify = true;
    std::string authorities;
    /** Where the bytes go: from its start, or from offset on. */
    int fd = -1;
    /** More bytes than these in all end the transfer. */
    std::uint64_t max_bytes = 0;
    /** A server that announces another length is refused before fd changes; 0 for any. */
    std::uint64_t size = 0;
    /** The bytes that fd has already, of the file that the validator stands for. */
    std::uint64_t offset = 0;
    /**
     * With an offset: the rest is wanted if the file is still this one, else all of
     * it, in place of what fd has. Without: nothing is wanted if it is still this one.
     */
    std::string validator;
    /** Seconds until the connection stands, without a byte, and in all. */
    int connect_timeout = 0;
    int stall_timeout = 0;
    int total_timeout = 0;
    /**
     * Called in the transfer's process: before the first byte is written, with the
     * file's validator or an empty text, and after each write, with the bytes that
     * fd has. May be empty.
     */
    std::function<void(const std::string& validator)> at_start;
    std::function<void(std::uint64_t bytes)> at_progress;
};

enum class TransferEnd {
    COMPLETE,
    /** The file is still the validator's. */
    NOT_MODIFIED,
    /** The connection broke; what arrived is good as far as it goes. */
    BROKEN,
    /** It failed or was given up; what arrived is good as far as it goes. */
    FAILED,
    /** What arrives is not what is wanted, or cannot be written. */
    REFUSED
};

struct TransferResult {
    TransferEnd end = TransferEnd::FAILED;
    /** Of COMPLETE: the file's validator, or an empty text. */
    std::string validator;
    /** Of the failures: the URL and the reason. */
    std::string error;
};

/**
 * Fetches a URL and waits for it, for total_timeout and at most two seconds more.
 * A signal handler that runs meanwhile ends it: the host is being stopped.
 */
TransferResult transfer(const TransferRequest& request);

}  // namespace ad_agent

#endif
