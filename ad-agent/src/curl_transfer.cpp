#include "curl_transfer.h"

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
constexpr long HTTP_OK = 200;

/** The functions of libcurl that a transfer uses, by their names without "curl_". */
struct Curl {
    decltype(&curl_global_init) global_init = nullptr;
    decltype(&curl_easy_init) easy_init = nullptr;
    decltype(&curl_easy_setopt) easy_setopt = nullptr;
    decltype(&curl_easy_perform) easy_perform = nullptr;
    decltype(&curl_easy_getinfo) easy_getinfo = nullptr;
    decltype(&curl_easy_strerror) easy_strerror = nullptr;
    decltype(&curl_easy_cleanup) easy_cleanup = nullptr;
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
                        resolve(library, "curl_easy_strerror", curl.easy_strerror) &&
                        resolve(library, "curl_easy_cleanup", curl.easy_cleanup);
    if (!loaded) error = std::string("cannot load libcurl: ") + dlerror();
    return loaded;
}

/** Where the bytes go, when the last came, and why no more are wanted. */
struct Sink {
    int fd;
    std::uint64_t room;
    gint64 stall_timeout;
    gint64 last_byte;
    std::string error;
};

std::size_t write_to_sink(char* data, std::size_t, std::size_t length, void* user_data) {
    Sink& sink = *static_cast<Sink*>(user_data);
    if (length > sink.room) {
        sink.error = "the server sends more than it should";
        return 0;
    }
    std::size_t done = 0;
    while (done < length) {
        const ssize_t written = write(sink.fd, data + done, length - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            sink.error = std::string("cannot write: ") + g_strerror(errno);
            return 0;
        }
        done += static_cast<std::size_t>(written);
    }
    sink.room -= length;
    sink.last_byte = g_get_monotonic_time();
    return length;
}

/**
 * Called about once a second. libcurl's own limit goes by the mean of some
 * seconds, so that it notices late when a fast transfer stops.
 */
int check_for_stall(void* user_data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Sink& sink = *static_cast<Sink*>(user_data);
    const gint64 silence = g_get_monotonic_time() - sink.last_byte;
    if (silence < sink.stall_timeout * G_USEC_PER_SEC) return 0;
    sink.error = "no byte in " + std::to_string(sink.stall_timeout) + " seconds";
    return 1;
}

/** Tells libcurl what to fetch and within what limits. */
bool set_options(const Curl& curl, CURL* handle, const TransferRequest& request, Sink& sink,
                 char* reason) {
    const bool secure = request.url.compare(0, 6, "https:") == 0;
    const auto set = [&](CURLoption option, auto value) {
        return curl.easy_setopt(handle, option, value) == CURLE_OK;
    };
    return set(CURLOPT_URL, request.url.c_str()) &&
           set(CURLOPT_PROTOCOLS_STR, secure ? "https" : "http,file") &&
           set(CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https") &&
           set(CURLOPT_FOLLOWLOCATION, 1L) && set(CURLOPT_MAXREDIRS, MAX_REDIRECTS) &&
           set(CURLOPT_FAILONERROR, 1L) &&
           // The device is configured by its file, not by proxy variables or a .netrc.
           set(CURLOPT_PROXY, "") && set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED)) &&
           set(CURLOPT_USERAGENT, "ad-agent") && set(CURLOPT_NOSIGNAL, 1L) &&
           set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connect_timeout)) &&
           set(CURLOPT_TIMEOUT, static_cast<long>(request.total_timeout)) &&
           set(CURLOPT_WRITEFUNCTION, write_to_sink) && set(CURLOPT_WRITEDATA, &sink) &&
           set(CURLOPT_NOPROGRESS, 0L) && set(CURLOPT_XFERINFOFUNCTION, check_for_stall) &&
           set(CURLOPT_XFERINFODATA, &sink) && set(CURLOPT_ERRORBUFFER, reason);
}

/** Whether an HTTP answer is the document itself; file:// has no status. */
bool is_complete_answer(const Curl& curl, CURL* handle, std::string& error) {
    long status = 0;
    curl.easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    if (status == 0 || status == HTTP_OK) return true;
    error = "the server answers with status " + std::to_string(status);
    return false;
}

}  // namespace

bool run_curl_transfer(const TransferRequest& request, std::string& error) {
    Curl curl;
    if (!load_curl(curl, error)) return false;
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        error = "cannot start libcurl";
        return false;
    }
    const std::unique_ptr<CURL, decltype(curl.easy_cleanup)> handle(curl.easy_init(),
                                                                    curl.easy_cleanup);
    Sink sink = {request.fd, request.max_bytes, request.stall_timeout, g_get_monotonic_time(), ""};
    std::array<char, CURL_ERROR_SIZE> reason = {};
    if (!handle || !set_options(curl, handle.get(), request, sink, reason.data())) {
        error = "libcurl does not know an option that is needed";
        return false;
    }

    const CURLcode code = curl.easy_perform(handle.get());
    if (code == CURLE_OK) return is_complete_answer(curl, handle.get(), error);
    error = reason[0] != '\0' ? reason.data() : curl.easy_strerror(code);
    if (!sink.error.empty()) error = sink.error;
    return false;
}

}  // namespace ad_agent
