#include "main_loop_call.h"

#include <glib.h>

namespace linux_platform {

void MainLoopCall::request() {
    if (pending_.exchange(true)) return;
    // Attached, not invoked: invoking would run it here while nobody runs the loop.
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &MainLoopCall::dispatch, this, nullptr);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

int MainLoopCall::dispatch(void* self) {
    auto* call = static_cast<MainLoopCall*>(self);
    // First, so that what changes during the call is not missed.
    call->pending_ = false;
    call->function_();
    return G_SOURCE_REMOVE;
}

}  // namespace linux_platform
