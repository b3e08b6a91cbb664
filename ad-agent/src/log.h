/**
 * The library's log: lines on standard error.
 */
#pragma once

#include <cstddef>
#include <string>

namespace ad_agent {

/** The longest line, in bytes: much of it may come from a server. */
inline constexpr std::size_t max_log_line = 512;

/**
 * Returns `text` without anything that could disguise what follows on a terminal: control
 * and formatting characters, such as those for the writing direction, and bytes that are
 * not UTF-8 are escaped; a result of more than `max_length` bytes is cut and ends in "...".
 */
std::string printable(const std::string& text, std::size_t max_length);

/** Writes "ad-agent: ", `message` and a newline, printable and with a single write(2). */
void log_line(const std::string& message);

}  // namespace ad_agent
