/**
 * Points in time as text: UTC, ISO 8601, to the second, such as 2026-11-21T10:00:00Z.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/** @param seconds  since 1970, as time(2) counts them */
std::string format_utc(std::int64_t seconds);

/** Parses exactly what format_utc() writes. */
std::optional<std::int64_t> parse_utc(const std::string& text);

}  // namespace ad_agent
