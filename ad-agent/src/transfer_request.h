/**
 * What a transfer is asked to do and what comes of it.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <tl/expected.hpp>

namespace ad_agent {

struct TransferRequest {
    /** http, https or file. */
    std::string url;
    /** Whether an https server must present a valid certificate. */
    bool verify = true;
    /** PEM file of the certificate authorities to trust; empty for those of the system. */
    std::string authorities;
    /** Descriptor, owned by the caller, that the body is written to at `offset`. */
    int fd = -1;
    /** A body that would make the file larger than this ends the transfer. */
    std::uint64_t max_bytes = 0;
    /**
     * Size of the whole file. A server that announces another one is rejected before
     * `fd` is written to; 0 for any size.
     */
    std::uint64_t expected_size = 0;
    /** Bytes of the file that `fd` already has; the transfer resumes behind them. */
    std::uint64_t offset = 0;
    /**
     * Entity tag of the file as the caller knows it. With an offset, a file that has
     * changed since is transferred from its start. Without, one that has not is not
     * transferred at all.
     */
    std::string etag;
    /** Time-outs in seconds: for the connection, without data, and in all. */
    int connect_timeout = 0;
    int stall_timeout = 0;
    int total_timeout = 0;
    /**
     * Called in the transfer's own process, and may be empty: before the first byte is
     * written, with the file's entity tag or an empty string; and after each write, with
     * the bytes that `fd` has.
     */
    std::function<void(const std::string& etag)> on_start;
    std::function<void(std::uint64_t bytes)> on_progress;
};

/** The answer of a server that has the file. */
struct Response {
    /** False if the file still matches the request's entity tag; `fd` is then untouched. */
    bool is_modified = true;
    /** The file's entity tag, or an empty string. */
    std::string etag;
};

enum class TransferFault {
    /** The connection was lost; the bytes received so far are good. */
    connection_lost,
    /** It failed otherwise; the bytes received so far are good. */
    failed,
    /** What was received is not what was requested, or could not be written. */
    rejected
};

struct TransferError {
    TransferFault fault = TransferFault::failed;
    /** The reason; transfer() puts the URL before it. */
    std::string message;
};

using TransferResult = tl::expected<Response, TransferError>;

}  // namespace ad_agent
