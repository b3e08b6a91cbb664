/**
 * The library's lines on standard error.
 */
#ifndef AD_AGENT_LOG_H
#define AD_AGENT_LOG_H

#include <string>

namespace ad_agent {

/**
 * Writes "ad-agent: ", the message and a newline to standard error, in one
 * write(2). Control characters, which a server may have sent, become '?'.
 */
void log_line(const std::string& message);

}  // namespace ad_agent

#endif
