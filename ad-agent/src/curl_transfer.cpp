#include "curl_transfer.h"

#include "validator.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

// The type checks are macros around the functions' own names.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

namespace ad_agent {
namespace {

constexpr char LIBRARY[] = "libcurl.so.4";
constexpr long MAX_REDIRECTS = 5;

enum HttpStatus : long {
    NO_STATUS = 0,  // of a file:// URL
    HTTP_OK = 200,
    HTTP_PARTIAL_CONTENT = 206,
    HTTP_NOT_MODIFIED = 304,
    HTTP_RANGE_NOT_SATISFIABLE = 416
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

bool load_curl(Curl& curl, std::string& error) {
    void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const bool loaded = library && resolve(library, "curl_global_init", curl.global_init) &&
                        resolve(library, "curl_easy_init", curl.easy_init) &&
                        resolve(library, "curl_easy_setopt", curl.easy_setopt) &&
                        resolve(library, "curl_easy_perform", curl.easy_perform) &&
                        resolve(library, "curl_easy_getinfo", curl.easy_getinfo) &&
                        resolve(library, "curl_easy_header", curl.easy_header) &&
                        resolve(library, "curl_easy_strerror", curl.easy_strerror) &&
                        resolve(library, "curl_easy_cleanup", curl.easy_cleanup) &&
                        resolve(library, "curl_slist_append", curl.slist_append);
    if (!loaded) error = std::string("cannot load libcurl: ") + dlerror();
    return loaded;
}

/** One transfer: what libcurl's callbacks know of it. */
struct Sink {
    const TransferRequest& request;
    const Curl& curl;
    CURL* handle;
    gint64 last_byte = g_get_monotonic_time();
    bool begun = false;
    std::uint64_t done = 0;
    std::string validator = {};
    TransferResult result = {};
};

/** Notes why the transfer ends here. @return false */
bool give_up(Sink& sink, TransferEnd end, const std::string& error) {
    sink.result.end = end;
    sink.result.error = error;
    return false;
}

bool cannot_write(Sink& sink) {
    return give_up(sink, TransferEnd::REFUSED, std::string("cannot write: ") + g_strerror(errno));
}

std::string header(const Sink& sink, const char* name) {
    curl_header* found = nullptr;
    const bool is_there =
        sink.curl.easy_header(sink.handle, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK;
    return is_there ? found->value : "";
}

long status_of(const Sink& sink) {
    long status = NO_STATUS;
    sink.curl.easy_getinfo(sink.handle, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

/** Holds the length that the server announces against the one that is wanted. */
bool check_length(Sink& sink, std::uint64_t expected) {
    curl_off_t length = -1;
    sink.curl.easy_getinfo(sink.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (sink.request.size == 0 || length < 0 || static_cast<std::uint64_t>(length) == expected)
        return true;
    return give_up(sink, TransferEnd::FAILED,
                   "the server announces " + std::to_string(length) + " bytes instead of " +
                       std::to_string(expected));
}

/** Judges the answer by its head, before its first byte is written. */
bool begin_body(Sink& sink) {
    const TransferRequest& request = sink.request;
    const long status = status_of(sink);
    if (status == HTTP_PARTIAL_CONTENT && request.offset > 0) {
        const std::string wanted = "bytes " + std::to_string(request.offset) + "-";
        const std::string range = header(sink, "Content-Range");
        if (range.compare(0, wanted.size(), wanted) != 0) {
            return give_up(sink, TransferEnd::FAILED, "the server sends another range: " + range);
        }
        if (!check_length(sink, request.size - request.offset)) return false;
        sink.done = request.offset;
    } else if (status == NO_STATUS || status == HTTP_OK) {
        if (!check_length(sink, request.size)) return false;
        if (request.offset > 0 && ftruncate(request.fd, 0) != 0) {
            return cannot_write(sink);
        }
    } else {
        return give_up(sink, TransferEnd::FAILED,
                       "the server answers with status " + std::to_string(status));
    }
    sink.validator = header(sink, "ETag");
    if (!is_validator(sink.validator)) sink.validator.clear();
    if (request.at_start) request.at_start(sink.validator);
    sink.begun = true;
    return true;
}

bool write_piece(Sink& sink, const char* data, std::size_t length) {
    if (length > sink.request.max_bytes - std::min(sink.done, sink.request.max_bytes))
        return give_up(sink, TransferEnd::REFUSED, "the server sends more than it should");
    for (std::size_t written = 0; written < length;) {
        const ssize_t count = pwrite(sink.request.fd, data + written, length - written,
                                     static_cast<off_t>(sink.done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return cannot_write(sink);
        written += static_cast<std::size_t>(count);
        sink.done += static_cast<std::uint64_t>(count);
    }
    sink.last_byte = g_get_monotonic_time();
    if (sink.request.at_progress) sink.request.at_progress(sink.done);
    return true;
}

std::size_t write_to_sink(char* data, std::size_t, std::size_t length, void* user_data) {
    Sink& sink = *static_cast<Sink*>(user_data);
    if (!sink.begun && !begin_body(sink)) return 0;
    return write_piece(sink, data, length) ? length : 0;
}

/**
 * Called about once a second. libcurl's own limit goes by the mean of some
 * seconds, so that it notices late when a fast transfer stops.
 */
int check_for_stall(void* user_data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Sink& sink = *static_cast<Sink*>(user_data);
    const gint64 silence = g_get_monotonic_time() - sink.last_byte;
    if (silence < gint64{sink.request.stall_timeout} * G_USEC_PER_SEC) return 0;
    give_up(sink, TransferEnd::BROKEN,
            "no byte in " + std::to_string(sink.request.stall_timeout) + " seconds");
    return 1;
}

/** What is asked beside the URL: a change since the validator, or the rest of its file. */
bool set_condition(const Sink& sink) {
    const TransferRequest& request = sink.request;
    if (request.validator.empty()) return request.offset == 0;
    std::string field = "If-None-Match: ";
    if (request.offset > 0) {
        field = "If-Range: ";
        const std::string range = std::to_string(request.offset) + "-";
        if (sink.curl.easy_setopt(sink.handle, CURLOPT_RANGE, range.c_str()) != CURLE_OK)
            return false;
    }
    // As long as the process, which ends with the transfer.
    curl_slist* const fields = sink.curl.slist_append(nullptr, (field + request.validator).c_str());
    return fields && sink.curl.easy_setopt(sink.handle, CURLOPT_HTTPHEADER, fields) == CURLE_OK;
}

/** Tells libcurl what to fetch and within what limits. */
bool set_options(Sink& sink, char* reason) {
    const TransferRequest& request = sink.request;
    const bool secure = request.url.compare(0, 6, "https:") == 0;
    const auto set = [&](CURLoption option, auto value) {
        return sink.curl.easy_setopt(sink.handle, option, value) == CURLE_OK;
    };
    return set(CURLOPT_URL, request.url.c_str()) &&
           set(CURLOPT_PROTOCOLS_STR, secure ? "https" : "http,file") &&
           set(CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https") &&
           set(CURLOPT_FOLLOWLOCATION, 1L) && set(CURLOPT_MAXREDIRS, MAX_REDIRECTS) &&
           set(CURLOPT_FAILONERROR, 1L) && set(CURLOPT_SSL_VERIFYPEER, request.verify ? 1L : 0L) &&
           set(CURLOPT_SSL_VERIFYHOST, request.verify ? 2L : 0L) &&
           (request.authorities.empty() || set(CURLOPT_CAINFO, request.authorities.c_str())) &&
           // The device is configured by its file, not by proxy variables or a .netrc.
           set(CURLOPT_PROXY, "") && set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED)) &&
           set(CURLOPT_USERAGENT, "ad-agent") && set(CURLOPT_NOSIGNAL, 1L) &&
           set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connect_timeout)) &&
           set(CURLOPT_TIMEOUT, static_cast<long>(request.total_timeout)) &&
           set(CURLOPT_WRITEFUNCTION, write_to_sink) && set(CURLOPT_WRITEDATA, &sink) &&
           set(CURLOPT_NOPROGRESS, 0L) && set(CURLOPT_XFERINFOFUNCTION, check_for_stall) &&
           set(CURLOPT_XFERINFODATA, &sink) && set(CURLOPT_ERRORBUFFER, reason) &&
           set_condition(sink);
}

/** Tells the end of a transfer that libcurl is content with. */
TransferResult judge_answer(Sink& sink) {
    const bool conditional = !sink.request.validator.empty() && sink.request.offset == 0;
    if (conditional && status_of(sink) == HTTP_NOT_MODIFIED) {
        sink.result.end = TransferEnd::NOT_MODIFIED;
    } else if (sink.begun || begin_body(sink)) {
        sink.result.end = TransferEnd::COMPLETE;
        sink.result.validator = sink.validator;
    }
    return sink.result;
}

/** Tells the end of a transfer that libcurl gave up, where no callback has told it. */
TransferResult judge_failure(const Sink& sink, CURLcode code, const char* reason) {
    if (!sink.result.error.empty()) return sink.result;
    TransferResult result;
    result.error = reason[0] != '\0' ? reason : sink.curl.easy_strerror(code);
    const bool broken = code == CURLE_PARTIAL_FILE || code == CURLE_RECV_ERROR ||
                        code == CURLE_SEND_ERROR || code == CURLE_GOT_NOTHING ||
                        code == CURLE_HTTP2 || code == CURLE_HTTP2_STREAM;
    if (broken) result.end = TransferEnd::BROKEN;
    // There is nothing behind the bytes that are here: they are not the file's.
    if (status_of(sink) == HTTP_RANGE_NOT_SATISFIABLE) result.end = TransferEnd::REFUSED;
    return result;
}

}  // namespace

TransferResult run_curl_transfer(const TransferRequest& request) {
    TransferResult failed;
    Curl curl;
    if (!load_curl(curl, failed.error)) return failed;
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        failed.error = "cannot start libcurl";
        return failed;
    }
    const std::unique_ptr<CURL, decltype(curl.easy_cleanup)> handle(curl.easy_init(),
                                                                    curl.easy_cleanup);
    Sink sink = {request, curl, handle.get()};
    std::array<char, CURL_ERROR_SIZE> reason = {};
    if (!handle || !set_options(sink, reason.data())) {
        failed.error = "libcurl does not know an option that is needed";
        return failed;
    }
    const CURLcode code = curl.easy_perform(handle.get());
    return code == CURLE_OK ? judge_answer(sink) : judge_failure(sink, code, reason.data());
}

}  // namespace ad_agent
