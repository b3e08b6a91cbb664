#include "ADDigest.h"

#include <array>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

namespace {

struct ChecksumFree {
    void operator()(GChecksum* pChecksum) const { g_checksum_free(pChecksum); }
};

std::string DigestFile(const char* pFile, GChecksumType eType) {
    const int nFd = open(pFile, O_RDONLY | O_CLOEXEC);
    if (nFd < 0) return "";

    const std::unique_ptr<GChecksum, ChecksumFree> pChecksum(g_checksum_new(eType));
    std::array<guchar, 65536> szBuffer;
    ssize_t nRead = 0;
    do {
        nRead = read(nFd, szBuffer.data(), szBuffer.size());
        if (nRead > 0) g_checksum_update(pChecksum.get(), szBuffer.data(), nRead);
    } while (nRead > 0 || (nRead < 0 && errno == EINTR));

    const int nError = errno;
    close(nFd);
    errno = nError;
    return nRead == 0 ? g_checksum_get_string(pChecksum.get()) : "";
}

}  // namespace

std::string ad_sha256_file(const char* pFile) { return DigestFile(pFile, G_CHECKSUM_SHA256); }

std::string ad_md5_file(const char* pFile) { return DigestFile(pFile, G_CHECKSUM_MD5); }
