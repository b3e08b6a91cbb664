#include "atomic_file.h"
#include "directories.h"
#include "verbs.h"

#include <sys/stat.h>

namespace ad_mounter {

namespace {

Outcome create_file(const Operation& operation, const Caller& caller) {
    Target target;
    TRY(ensure_parent(operation, caller, target, Found::sync));
    AtomicFile file(target);
    TRY(file.remove_leftover());
    TRY(refuse_symbolic_link(target));
    struct stat status;
    if (target_status(target, status) == 0) {
        return S_ISREG(status.st_mode) ? sync_parent(target)
                                       : Outcome::refused(EX_CANTCREAT, "create", operation.target,
                                                          "exists but is not a regular file");
    }
    TRY(file.create(0));
    return file.commit(ownership_of(&operation, caller), Existing::keep);
}

}  // namespace

Outcome create_target(const Operation& operation, const Caller& caller) {
    base::UniqueFd directory;
    return operation.kind == Kind::file ? create_file(operation, caller)
                                        : ensure_directory(operation.target, caller, directory);
}

}  // namespace ad_mounter
