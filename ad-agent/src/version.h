/**
 * Versions: decimal fractions such as 1.05, passed on as text.
 */
#pragma once

#include <string>

namespace ad_agent {

/** Stands for a version that is not known. */
inline constexpr char no_version[] = "0.00";

/** The longest version that every interface has room for, in characters. */
inline constexpr std::size_t max_version_length = 19;

/** Whether `text` is digits, or digits, a point and digits, and not too long. */
bool is_version(const std::string& text);

/**
 * Whether `version` is a greater number than `other`. Compares as the daemon does,
 * strtod(3) narrowed to float: 2.10 is less than 2.9, and text without a number is 0.
 */
bool is_newer(const std::string& version, const std::string& other);

}  // namespace ad_agent
