/**
 * Versions: decimal fractions such as 1.05, which travel as text.
 */
#ifndef AD_AGENT_VERSION_H
#define AD_AGENT_VERSION_H

#include <string>

namespace ad_agent {

/** Stands for a version that is not there. */
inline constexpr char NO_VERSION[] = "0.00";

/** The longest version text that all who pass it on have room for. */
inline constexpr std::size_t MAX_VERSION_LENGTH = 19;

/** Whether a text is digits, or digits, a point and digits, and not too long. */
bool is_version(const std::string& text);

/**
 * Whether a version is a greater number than another one. The daemon compares
 * strtod(3) narrowed to float, in which 2.10 is less than 2.9 and a text without
 * a number is 0; so does this.
 */
bool is_newer(const std::string& version, const std::string& other);

}  // namespace ad_agent

#endif
