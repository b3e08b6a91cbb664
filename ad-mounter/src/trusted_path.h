/**
 * Opens paths that nobody but root can change.
 */
#pragma once

#include "base/unique_fd.h"
#include "outcome.h"
#include "path.h"

#include <cstddef>

#include <sys/stat.h>
#include <sys/types.h>

namespace ad_mounter {

/** Why users other than root may change what has this status; null when they may not. */
const char* untrusted_reason(const struct stat& status);

/**
 * Success, or a refusal with this status because the directory `directory`, which is open for
 * this component of a path, is neither root's alone nor one that the operations table gives to
 * the caller.
 */
Outcome check_component(const Component& component, int directory, int refusal = EX_NOPERM);

/**
 * Opens the absolute path of a directory for reading, with check_component() on each component,
 * "/" and the last one included. EX_NOINPUT when it does not exist; `refusal` when it is not
 * trusted or when a component is a symbolic link. `shown` is the path for error messages.
 */
Outcome open_trusted_directory(const char* path, const char* shown, base::UniqueFd& directory,
                               int refusal = EX_NOPERM);

/** What read_trusted_file() has read: `length` bytes, or why nothing. */
struct TrustedText {
    const char* rejection = nullptr;  ///< why the file is not trusted; null when it is
    int error = 0;                    ///< an errno value; ENOENT when there is no such file
    size_t length = 0;
};

/**
 * Reads up to `size` bytes of the file `name` in the open, trusted directory `directory`: a
 * regular file that is root's alone.
 */
TrustedText read_trusted_file(int directory, const char* name, char* text, size_t size);

}  // namespace ad_mounter
