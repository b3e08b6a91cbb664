#include "platform_log.h"

#include "log_file.h"

#include <cstdarg>

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl50-cpp): the interface's name and form.
int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int result = simulated_platform::process_log().vprint(priority, tag, format, arguments);
    va_end(arguments);
    return result;
}
