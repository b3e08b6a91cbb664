#include "version.h"

#include "base/decimal_version.h"

namespace ad_agent {
namespace {

/** Returns the decimal fraction that a text begins with; empty, which is 0, if there is none. */
std::string leading_number(const std::string& text) {
    constexpr char digits[] = "0123456789";
    std::size_t end = std::min(text.find_first_not_of(digits), text.size());
    if (end < text.size() && text[end] == '.') {
        end = std::min(text.find_first_not_of(digits, end + 1), text.size());
    }
    return text.substr(0, end);
}

}  // namespace

bool is_newer(const std::string& version, const std::string& other) {
    return base::compare_versions(leading_number(version), leading_number(other)) > 0;
}

}  // namespace ad_agent
