#include "version.h"

#include <cstdlib>

namespace ad_agent {
namespace {

bool is_number(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

float to_number(const std::string& version) {
    return static_cast<float>(std::strtod(version.c_str(), nullptr));
}

}  // namespace

bool is_version(const std::string& text) {
    if (text.size() > max_version_length) {
        return false;
    }
    const std::size_t point = text.find('.');
    if (point == std::string::npos) {
        return is_number(text);
    }
    return is_number(text.substr(0, point)) && is_number(text.substr(point + 1));
}

bool is_newer(const std::string& version, const std::string& other) {
    return to_number(version) > to_number(other);
}

}  // namespace ad_agent
