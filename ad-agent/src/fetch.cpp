#include "fetch.h"

#include "transfer.h"
#include "unique_fd.h"

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

}  // namespace

std::optional<std::string> fetch_text(const Settings& settings, const std::string& url_path,
                                      std::uint64_t max_bytes, std::string& error) {
    TransferRequest request;
    request.url = settings.server_url + url_path;
    request.max_bytes = max_bytes;
    request.connect_timeout = settings.connect_timeout;
    request.stall_timeout = settings.stall_timeout;
    request.total_timeout = settings.document_timeout;

    const UniqueFd memory(memfd_create("ad-agent-document", MFD_CLOEXEC));
    if (!memory) {
        error = request.url + ": memfd_create: " + g_strerror(errno);
        return std::nullopt;
    }
    request.fd = memory.get();
    if (!transfer(request, error)) return std::nullopt;

    std::string text;
    if (!read_all(memory.get(), text)) {
        error = request.url + ": cannot read the answer back: " + g_strerror(errno);
        return std::nullopt;
    }
    return text;
}

}  // namespace ad_agent
