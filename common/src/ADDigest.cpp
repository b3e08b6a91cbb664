#include "ADDigest.h"

#include "base/file_io.h"
#include "base/glib_owned.h"
#include "base/unique_fd.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <glib.h>

namespace {

std::string DigestFile(const char* pFile, GChecksumType eType) {
    const base::UniqueFd oFile(open(pFile, O_RDONLY | O_CLOEXEC));
    if (!oFile) return "";

    const base::Owned<GChecksum> pChecksum(g_checksum_new(eType));
    std::array<guchar, 16384> szBuffer;
    ssize_t nRead = 0;
    while ((nRead = base::read_full(oFile.get(), szBuffer.data(), szBuffer.size())) > 0) {
        g_checksum_update(pChecksum.get(), szBuffer.data(), nRead);
    }
    return nRead == 0 ? g_checksum_get_string(pChecksum.get()) : "";
}

}  // namespace

std::string ad_sha256_file(const char* pFile) { return DigestFile(pFile, G_CHECKSUM_SHA256); }

std::string ad_md5_file(const char* pFile) { return DigestFile(pFile, G_CHECKSUM_MD5); }
