#include "main_loop_call.h"

#include "base/glib_owned.h"

namespace linux_platform {

void MainLoopCall::request() {
    if (pending_.exchange(true)) {
        return;
    }
    // Attached, not invoked: g_main_context_invoke() would call the function on this thread while
    // no thread runs the loop.
    const base::Owned<GSource> source(g_idle_source_new());
    g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
    g_source_set_callback(source.get(), &MainLoopCall::dispatch, this, nullptr);
    g_source_attach(source.get(), nullptr);
}

int MainLoopCall::dispatch(void* self) {
    auto* call = static_cast<MainLoopCall*>(self);
    // Cleared first, so that a change during the call requests another one.
    call->pending_ = false;
    call->function_();
    return G_SOURCE_REMOVE;
}

}  // namespace linux_platform
