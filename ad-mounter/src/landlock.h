/**
 * Limits the process to the paths of a request, see landlock(7).
 */
#pragma once

#include "operations.h"
#include "outcome.h"

namespace ad_mounter {

/**
 * From here on files are created, changed and removed only below the directories that the
 * request's targets need, and files are read only there and in a few fixed directories. Has no
 * effect on kernels without Landlock, before Linux 5.13. For verbs that do not mount: the
 * process can neither mount nor unmount any more. Needs no_new_privs. Irreversible.
 */
Outcome restrict_paths(const Operation& request);

}  // namespace ad_mounter
