// Who runs the tool, and how little it may do.
#ifndef AD_MOUNTER_PRIVILEGES_H
#define AD_MOUNTER_PRIVILEGES_H

#include "create.h"
#include "messages.h"
#include "table.h"

namespace ad_mounter {

/**
 * Makes the process root's own where it was started set-user-ID, so that its
 * caller can no longer signal it. Gives who called in `caller`; not permitted
 * when the process is not root's at all.
 */
Outcome become_root(Caller& caller);

/**
 * Reduces the process to what `verb` needs: no new privileges, the few
 * capabilities(7), and a filter that forbids programs, sockets and tracing.
 */
Outcome reduce_rights(Verb verb);

}  // namespace ad_mounter

#endif
