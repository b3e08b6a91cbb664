#include "atomic_file.h"
#include "directories.h"
#include "file_copy.h"
#include "mounted_image.h"
#include "verbs.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

Outcome copy_library(const Operation& operation, const Caller& caller) {
    base::UniqueFd source;
    TRY(open_mounted(operation.first, O_RDONLY | O_NONBLOCK | O_NOCTTY, source));
    struct stat status;
    if (fstat(source.get(), &status) != 0) {
        return Outcome::failed("stat", operation.first, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return Outcome::refused(EX_DATAERR, "copy", operation.first, "not a regular file");
    }
    Target target;
    TRY(ensure_parent(operation, caller, target));
    AtomicFile file(target);
    TRY(file.remove_leftover());
    TRY(refuse_symbolic_link(target));
    const auto size = static_cast<uint64_t>(status.st_size);
    TRY(file.create(size));
    const int error = copy_bytes(source.get(), file.fd(), size);
    return error == 0 ? file.commit(ownership_of(&operation, caller))
                      : Outcome::failed("copy to", operation.target, error);
}

}  // namespace ad_mounter
