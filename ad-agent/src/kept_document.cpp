#include "kept_document.h"

#include "unique_fd.h"
#include "validator.h"

#include <array>
#include <cerrno>

#include <glib.h>
#include <sys/mman.h>

namespace ad_agent {
namespace {

bool read_all(int fd, std::string& text) {
    std::array<char, 16384> buffer = {};
    for (;;) {
        const ssize_t length =
            pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return length == 0;
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

/** Fetches a document into memory. */
TransferResult fetch_text(TransferRequest& request, std::string& text) {
    const UniqueFd memory(memfd_create("ad-agent-document", MFD_CLOEXEC));
    if (!memory)
        return {TransferEnd::FAILED, "", request.url + ": memfd_create: " + g_strerror(errno)};
    request.fd = memory.get();
    TransferResult result = transfer(request);
    if (result.end == TransferEnd::COMPLETE && !read_all(memory.get(), text)) {
        result.end = TransferEnd::FAILED;
        result.error = request.url + ": cannot read the answer back: " + g_strerror(errno);
    }
    return result;
}

/** The old validator goes first, so that it never stands beside a new document. */
bool keep(const DataFolder& folder, const DocumentSource& source, const std::string& url,
          const std::string& text, const std::string& validator, std::string& error) {
    remove_validator(folder, source.name);
    return folder.write(source.name, text, error) &&
           keep_validator(folder, source.name, url, validator, error);
}

}  // namespace

TransferRequest request_for(const Settings& settings, const std::string& url_path) {
    TransferRequest request;
    request.url = settings.server_url + url_path;
    request.verify = settings.verify;
    request.authorities = settings.authorities;
    request.connect_timeout = settings.connect_timeout;
    request.stall_timeout = settings.stall_timeout;
    request.total_timeout = settings.document_timeout;
    return request;
}

std::optional<KeptDocument> fetch_document(const Settings& settings, const DataFolder& folder,
                                           const DocumentSource& source, std::string& error) {
    TransferRequest request = request_for(settings, source.url_path);
    request.max_bytes = source.max_bytes;
    const auto kept = folder.read(source.name, source.max_bytes);
    if (kept && source.problem_of(*kept).empty())
        request.validator = read_validator(folder, source.name, request.url);

    std::string text;
    const TransferResult result = fetch_text(request, text);
    if (result.end == TransferEnd::NOT_MODIFIED) return KeptDocument{*kept, false};
    if (result.end != TransferEnd::COMPLETE) {
        error = result.error;
        return std::nullopt;
    }
    const std::string problem = source.problem_of(text);
    if (!problem.empty()) {
        error = request.url + ": " + problem;
        return std::nullopt;
    }
    if (!keep(folder, source, request.url, text, result.validator, error)) return std::nullopt;
    return KeptDocument{text, true};
}

}  // namespace ad_agent
