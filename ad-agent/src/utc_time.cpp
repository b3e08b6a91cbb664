#include "utc_time.h"

#include <array>
#include <ctime>

namespace ad_agent {
namespace {

constexpr char format[] = "%Y-%m-%dT%H:%M:%SZ";

}  // namespace

std::string format_utc(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm fields = {};
    std::array<char, 64> text = {};
    if (!gmtime_r(&time, &fields) ||
        std::strftime(text.data(), text.size(), format, &fields) == 0) {
        return "";
    }
    return text.data();
}

std::optional<std::int64_t> parse_utc(const std::string& text) {
    std::tm fields = {};
    if (!strptime(text.c_str(), format, &fields)) {
        return std::nullopt;
    }
    const std::int64_t seconds = timegm(&fields);
    // strptime(3) accepts other spellings, and days that a month does not have.
    return format_utc(seconds) == text ? std::optional<std::int64_t>(seconds) : std::nullopt;
}

}  // namespace ad_agent
