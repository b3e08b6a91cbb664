/**
 * The guard's log: lines on standard error.
 */
#pragma once

#include "base/file_io.h"
#include "log.h"

#include <string>

#include <unistd.h>

namespace ad_guard {

/** Writes "adagentd-guard: ", `message` and a newline, printable and with a single write(2). */
inline void log_line(const std::string& message) {
    const std::string line =
        ad_agent::printable("adagentd-guard: " + message, ad_agent::max_log_line) + "\n";
    base::write_full(STDERR_FILENO, line.data(), line.size());
}

}  // namespace ad_guard
