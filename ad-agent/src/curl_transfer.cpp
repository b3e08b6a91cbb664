#include "curl_transfer.h"

#include "base/errno_text.h"
#include "base/file_io.h"
#include "etag.h"
#include "result.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

// The type checks are macros around the functions' own names.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

namespace ad_agent {
namespace {

constexpr char library_name[] = "libcurl.so.4";
constexpr long max_redirects = 5;

enum HttpStatus : long {
    no_status = 0,  // of a file:// URL
    ok = 200,
    partial_content = 206,
    not_modified = 304,
    range_not_satisfiable = 416
};

/** The functions of libcurl that a transfer uses, by their names without "curl_". */
struct Curl {
    decltype(&curl_global_init) global_init = nullptr;
    decltype(&curl_easy_init) easy_init = nullptr;
    decltype(&curl_easy_setopt) easy_setopt = nullptr;
    decltype(&curl_easy_perform) easy_perform = nullptr;
    decltype(&curl_easy_getinfo) easy_getinfo = nullptr;
    decltype(&curl_easy_header) easy_header = nullptr;
    decltype(&curl_easy_strerror) easy_strerror = nullptr;
    decltype(&curl_easy_cleanup) easy_cleanup = nullptr;
    decltype(&curl_slist_append) slist_append = nullptr;
};

template <typename Function>
bool resolve(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

/** Loads libcurl for the rest of the process's life. */
Result<Curl> load_curl() {
    Curl curl;
    void* const library = dlopen(library_name, RTLD_NOW | RTLD_LOCAL);
    const bool is_loaded = library && resolve(library, "curl_global_init", curl.global_init) &&
                           resolve(library, "curl_easy_init", curl.easy_init) &&
                           resolve(library, "curl_easy_setopt", curl.easy_setopt) &&
                           resolve(library, "curl_easy_perform", curl.easy_perform) &&
                           resolve(library, "curl_easy_getinfo", curl.easy_getinfo) &&
                           resolve(library, "curl_easy_header", curl.easy_header) &&
                           resolve(library, "curl_easy_strerror", curl.easy_strerror) &&
                           resolve(library, "curl_easy_cleanup", curl.easy_cleanup) &&
                           resolve(library, "curl_slist_append", curl.slist_append);
    if (!is_loaded) {
        return failure(std::string("failed to load libcurl: ") + dlerror());
    }
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        return failure("failed to initialise libcurl");
    }
    return curl;
}

/** The state of the transfer, as libcurl's callbacks see it. */
struct TransferContext {
    const TransferRequest& request;
    const Curl& curl;
    CURL* handle;
    gint64 last_data = g_get_monotonic_time();
    /** Whether the head of the response was accepted. */
    bool is_accepted = false;
    /** The bytes that the request's descriptor has. */
    std::uint64_t size = 0;
    std::string etag = {};
    /** Why a callback ended the transfer. */
    std::optional<TransferError> error = {};
};

/** Records why the transfer ends here. Returns false. */
bool abort_transfer(TransferContext& context, TransferFault fault, const std::string& reason) {
    context.error = TransferError{fault, reason};
    return false;
}

bool abort_on_write_error(TransferContext& context) {
    return abort_transfer(context, TransferFault::rejected,
                          std::string("failed to write: ") + base::errno_text(errno));
}

std::string header(const TransferContext& context, const char* name) {
    curl_header* found = nullptr;
    const bool exists =
        context.curl.easy_header(context.handle, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK;
    return exists ? found->value : "";
}

long status_of(const TransferContext& context) {
    long status = HttpStatus::no_status;
    context.curl.easy_getinfo(context.handle, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

/** Compares the length that the server announces, if it does, with the one that is expected. */
bool check_length(TransferContext& context, std::uint64_t expected) {
    curl_off_t length = -1;
    context.curl.easy_getinfo(context.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (context.request.expected_size == 0 || length < 0 ||
        static_cast<std::uint64_t>(length) == expected) {
        return true;
    }
    return abort_transfer(
        context, TransferFault::failed,
        "Content-Length is " + std::to_string(length) + ", expected " + std::to_string(expected));
}

/** Checks the head of a response with the requested range, and resumes there. */
bool accept_range(TransferContext& context) {
    const TransferRequest& request = context.request;
    const std::string expected = "bytes " + std::to_string(request.offset) + "-";
    const std::string range = header(context, "Content-Range");
    if (range.compare(0, expected.size(), expected) != 0) {
        return abort_transfer(context, TransferFault::failed, "unexpected Content-Range: " + range);
    }
    context.size = request.offset;
    return check_length(context, request.expected_size - request.offset);
}

/** Checks the head of a response with the whole file, and discards what there is of it. */
bool accept_file(TransferContext& context) {
    const TransferRequest& request = context.request;
    if (!check_length(context, request.expected_size)) {
        return false;
    }
    if (request.offset > 0 && ftruncate(request.fd, 0) != 0) {
        return abort_on_write_error(context);
    }
    return true;
}

/** Checks the head of the response, before any of its body is written. */
bool accept_response(TransferContext& context) {
    const TransferRequest& request = context.request;
    const long status = status_of(context);
    if (status == HttpStatus::partial_content && request.offset > 0) {
        if (!accept_range(context)) {
            return false;
        }
    } else if (status == HttpStatus::no_status || status == HttpStatus::ok) {
        if (!accept_file(context)) {
            return false;
        }
    } else {
        return abort_transfer(context, TransferFault::failed,
                              "unexpected HTTP status " + std::to_string(status));
    }
    context.etag = header(context, "ETag");
    if (!is_etag(context.etag)) {
        context.etag.clear();
    }
    if (request.on_start) {
        request.on_start(context.etag);
    }
    context.is_accepted = true;
    return true;
}

bool write_piece(TransferContext& context, const char* data, std::size_t length) {
    const TransferRequest& request = context.request;
    if (context.size > request.max_bytes || length > request.max_bytes - context.size) {
        return abort_transfer(context, TransferFault::rejected,
                              "response exceeds the expected size");
    }
    if (!base::pwrite_full(request.fd, data, length, static_cast<off_t>(context.size))) {
        return abort_on_write_error(context);
    }
    context.size += length;
    context.last_data = g_get_monotonic_time();
    if (request.on_progress) {
        request.on_progress(context.size);
    }
    return true;
}

std::size_t on_data(char* data, std::size_t, std::size_t length, void* user_data) {
    TransferContext& context = *static_cast<TransferContext*>(user_data);
    if (!context.is_accepted && !accept_response(context)) {
        return 0;
    }
    return write_piece(context, data, length) ? length : 0;
}

/**
 * Called about once a second. libcurl's own limit applies to the average of some
 * seconds, so that it takes long to notice when a fast transfer stalls.
 */
int on_tick(void* user_data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    TransferContext& context = *static_cast<TransferContext*>(user_data);
    const int limit = context.request.stall_timeout;
    if (g_get_monotonic_time() - context.last_data < gint64{limit} * G_USEC_PER_SEC) {
        return 0;
    }
    abort_transfer(context, TransferFault::connection_lost,
                   "no data received for " + std::to_string(limit) + " seconds");
    return 1;
}

/** Makes the request conditional on the entity tag, if there is one. */
bool set_condition(const TransferContext& context) {
    const TransferRequest& request = context.request;
    if (request.etag.empty()) {
        return request.offset == 0;
    }
    std::string field = "If-None-Match: ";
    if (request.offset > 0) {
        field = "If-Range: ";
        const std::string range = std::to_string(request.offset) + "-";
        if (context.curl.easy_setopt(context.handle, CURLOPT_RANGE, range.c_str()) != CURLE_OK) {
            return false;
        }
    }
    // Never freed: the process ends with the transfer.
    curl_slist* const fields = context.curl.slist_append(nullptr, (field + request.etag).c_str());
    return fields &&
           context.curl.easy_setopt(context.handle, CURLOPT_HTTPHEADER, fields) == CURLE_OK;
}

/** Configures the transfer. `reason` must have room for CURL_ERROR_SIZE characters. */
bool set_options(TransferContext& context, char* reason) {
    const TransferRequest& request = context.request;
    const bool is_secure = request.url.compare(0, 6, "https:") == 0;
    const auto set = [&](CURLoption option, auto value) {
        return context.curl.easy_setopt(context.handle, option, value) == CURLE_OK;
    };
    return set(CURLOPT_URL, request.url.c_str()) &&
           set(CURLOPT_REDIR_PROTOCOLS_STR, is_secure ? "https" : "http,https") &&
           set(CURLOPT_FOLLOWLOCATION, 1L) && set(CURLOPT_MAXREDIRS, max_redirects) &&
           set(CURLOPT_FAILONERROR, 1L) && set(CURLOPT_SSL_VERIFYPEER, request.verify ? 1L : 0L) &&
           set(CURLOPT_SSL_VERIFYHOST, request.verify ? 2L : 0L) &&
           (request.authorities.empty() || set(CURLOPT_CAINFO, request.authorities.c_str())) &&
           // The configuration file alone counts, not the environment's proxy variables.
           set(CURLOPT_PROXY, "") && set(CURLOPT_USERAGENT, "ad-agent") &&
           set(CURLOPT_NOSIGNAL, 1L) &&
           set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connect_timeout)) &&
           set(CURLOPT_TIMEOUT, static_cast<long>(request.total_timeout)) &&
           set(CURLOPT_WRITEFUNCTION, on_data) && set(CURLOPT_WRITEDATA, &context) &&
           set(CURLOPT_NOPROGRESS, 0L) && set(CURLOPT_XFERINFOFUNCTION, on_tick) &&
           set(CURLOPT_XFERINFODATA, &context) && set(CURLOPT_ERRORBUFFER, reason) &&
           set_condition(context);
}

/** Classifies the result of a transfer that libcurl reports as successful. */
TransferResult classify_success(TransferContext& context) {
    const bool is_conditional = !context.request.etag.empty() && context.request.offset == 0;
    if (is_conditional && status_of(context) == HttpStatus::not_modified) {
        return Response{false, context.request.etag};
    }
    if (!context.is_accepted && !accept_response(context)) {
        return tl::unexpected<TransferError>(*context.error);
    }
    return Response{true, context.etag};
}

/** Classifies the result of a transfer that libcurl or a callback gave up. */
TransferError classify_failure(const TransferContext& context, CURLcode code, const char* reason) {
    if (context.error) {
        return *context.error;
    }
    if (code == CURLE_TOO_MANY_REDIRECTS) {
        return {TransferFault::failed,
                "redirected more than " + std::to_string(max_redirects) + " times"};
    }
    constexpr std::array lost = {CURLE_PARTIAL_FILE, CURLE_RECV_ERROR, CURLE_SEND_ERROR,
                                 CURLE_GOT_NOTHING,  CURLE_HTTP2,      CURLE_HTTP2_STREAM};
    TransferError error;
    error.message = reason[0] != '\0' ? reason : context.curl.easy_strerror(code);
    if (status_of(context) == HttpStatus::range_not_satisfiable) {
        // The file ends before the offset: the bytes at hand are not its.
        error.fault = TransferFault::rejected;
    } else if (std::find(lost.begin(), lost.end(), code) != lost.end()) {
        error.fault = TransferFault::connection_lost;
    }
    return error;
}

}  // namespace

TransferResult run_curl_transfer(const TransferRequest& request) {
    using Failed = tl::unexpected<TransferError>;
    const auto curl = load_curl();
    if (!curl) {
        return Failed({TransferFault::failed, curl.error().message});
    }
    const std::unique_ptr<CURL, decltype(curl->easy_cleanup)> handle(curl->easy_init(),
                                                                     curl->easy_cleanup);
    TransferContext context = {request, *curl, handle.get()};
    std::array<char, CURL_ERROR_SIZE> reason = {};
    if (!handle || !set_options(context, reason.data())) {
        return Failed({TransferFault::failed, "libcurl lacks a required option"});
    }
    const CURLcode code = curl->easy_perform(handle.get());
    if (code != CURLE_OK) {
        return Failed(classify_failure(context, code, reason.data()));
    }
    return classify_success(context);
}

}  // namespace ad_agent
