#pragma once

#include <atomic>

namespace linux_platform {

/**
 * Lets other threads have a function called on the thread of GLib's default main
 * context. Lives as long as the process.
 */
class MainLoopCall {
public:
    explicit MainLoopCall(void (*function)()) : function_(function) {}

    /**
     * Has the function called once the main loop gets to it. All requests that
     * arrive before then are met by that one call. From any thread.
     */
    void request();

private:
    static int dispatch(void* self);

    void (*function_)();
    std::atomic<bool> pending_{false};
};

}  // namespace linux_platform
