#include "cached_document.h"

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "etag.h"
#include "part_file.h"
#include "transfer.h"

#include <optional>

#include <sys/mman.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

Result<std::string> read_back(int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return errno_failure("failed to read the response back");
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (base::pread_full(fd, text.data(), text.size(), 0) != status.st_size) {
        return errno_failure("failed to read the response back");
    }
    return text;
}

/** Transfers a document into memory. Returns none if it still matches the request's entity tag. */
Result<std::optional<std::string>> transfer_document(TransferRequest& request,
                                                     const DocumentSource& source,
                                                     std::string& etag) {
    const base::UniqueFd memory(memfd_create("ad-agent-document", MFD_CLOEXEC));
    if (!memory) {
        return errno_failure(request.url + ": failed to create a memory file");
    }
    request.fd = memory.get();
    request.max_bytes = source.max_bytes;
    const auto response = transfer(request);
    if (!response) {
        return failure(response.error().message);
    }
    if (!response->is_modified) {
        return std::nullopt;
    }
    auto text = read_back(memory.get());
    const auto valid = text.and_then(source.validate);
    if (!valid) {
        return failure(request.url + ": " + valid.error().message);
    }
    etag = response->etag;
    return std::optional<std::string>(std::move(*text));
}

/** Replaces the cached document and its entity tag. */
Result<> store(const DataDirectory& directory, const DocumentSource& source, const std::string& url,
               const std::string& text, const std::string& etag) {
    // First, so that a failure in between never leaves it beside another document.
    remove_etag(directory, source.name);
    const auto replaced = replace_file(directory, source.name, text);
    return replaced ? store_etag(directory, source.name, url, etag) : replaced;
}

}  // namespace

TransferRequest make_request(const Settings& settings, const std::string& url_path) {
    TransferRequest request;
    request.url = settings.server_url + url_path;
    request.verify = settings.verify;
    request.authorities = settings.authorities;
    request.connect_timeout = settings.connect_timeout;
    request.stall_timeout = settings.stall_timeout;
    request.total_timeout = settings.document_timeout;
    return request;
}

Result<std::string> fetch_uncached(const Settings& settings, const DocumentSource& source) {
    TransferRequest request = make_request(settings, source.url_path);
    std::string etag;
    auto text = transfer_document(request, source, etag);
    if (!text) {
        return Failure(text.error());
    }
    // Without an entity tag in the request there is nothing to match.
    return *text ? Result<std::string>(std::move(**text)) : failure(request.url + ": not modified");
}

Result<CachedDocument> fetch_document(const Settings& settings, const DataDirectory& directory,
                                      const DocumentSource& source) {
    TransferRequest request = make_request(settings, source.url_path);
    auto cached = directory.read(source.name, source.max_bytes);
    if (cached && source.validate(*cached)) {
        request.etag = read_etag(directory, source.name, request.url);
    }
    std::string etag;
    auto text = transfer_document(request, source, etag);
    if (!text) {
        return Failure(text.error());
    }
    if (!*text) {
        return CachedDocument{std::move(*cached), false};
    }
    const auto stored = store(directory, source, request.url, **text, etag);
    if (!stored) {
        return Failure(stored.error());
    }
    return CachedDocument{std::move(**text), true};
}

}  // namespace ad_agent
