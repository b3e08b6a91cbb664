/**
 * Versions: decimal fractions such as 1.05, passed on as text.
 */
#pragma once

#include <string>

namespace ad_agent {

/** Stands for a version that is not known. */
inline constexpr char no_version[] = "0.00";

/**
 * Whether `version` is a greater number than `other`, without rounding. Of text that is no
 * version, which a host or a manifest may come up with, the decimal fraction that it begins
 * with counts, and 0 if there is none.
 */
bool is_newer(const std::string& version, const std::string& other);

}  // namespace ad_agent
