/**
 * The library's log: lines on standard error.
 */
#pragma once

#include <string>

namespace ad_agent {

/**
 * Writes "ad-agent: ", `message` and a newline with a single write(2). Control
 * characters, which may come from a server, are replaced with '?'.
 */
void log_line(const std::string& message);

}  // namespace ad_agent
