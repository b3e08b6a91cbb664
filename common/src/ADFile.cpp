#include "ADFile.h"

#include "base/file_io.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>

int ad_open_file(const char* pFile) {
    return open(pFile, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
}

bool ad_read_small_file(const char* pFile, std::string* pText) {
    pText->clear();
    const base::UniqueFd oFile(ad_open_file(pFile));
    if (!oFile) return false;

    struct stat sInfo = {};
    if (fstat(oFile.get(), &sInfo) != 0 || !S_ISREG(sInfo.st_mode) ||
        sInfo.st_size > AD_SMALL_FILE_SIZE) {
        return true;
    }
    pText->resize(sInfo.st_size);
    const ssize_t nRead = base::read_full(oFile.get(), pText->data(), pText->size());
    pText->resize(nRead > 0 ? nRead : 0);
    return true;
}
