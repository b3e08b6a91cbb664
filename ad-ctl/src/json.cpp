#include "json.h"

#include "log.h"
#include "utc_time.h"

namespace ad_ctl {
namespace {

/** Joins what is not empty between brackets. */
std::string join(const std::vector<std::string>& parts, const char* separator) {
    std::string joined;
    for (const std::string& part : parts) {
        joined += (joined.empty() ? "" : separator) + part;
    }
    return joined;
}

std::vector<std::string> members_of(const JsonMembers& members) {
    std::vector<std::string> texts;
    texts.reserve(members.size());
    for (const auto& [name, value] : members) {
        texts.push_back(json_text(name).text + ": " + value.text);
    }
    return texts;
}

}  // namespace

Json json_text(const std::string& text) {
    constexpr std::size_t max_length = 1024;
    std::string quoted = "\"";
    // Without control characters and in UTF-8: only these two are left to escape.
    for (const char byte : ad_agent::printable(text, max_length)) {
        if (byte == '"' || byte == '\\') {
            quoted += '\\';
        }
        quoted += byte;
    }
    return {quoted + "\""};
}

Json json_optional(const std::string& text) { return text.empty() ? json_null() : json_text(text); }

Json json_number(std::int64_t number) { return {std::to_string(number)}; }

Json json_boolean(bool value) { return {value ? "true" : "false"}; }

Json json_null() { return {"null"}; }

Json json_time(std::int64_t seconds) {
    return seconds == 0 ? json_null() : json_text(ad_agent::format_utc(seconds));
}

Json json_object(const JsonMembers& members) {
    return {"{" + join(members_of(members), ", ") + "}"};
}

Json json_array(const std::vector<Json>& elements) {
    std::vector<std::string> texts;
    texts.reserve(elements.size());
    for (const Json& element : elements) {
        texts.push_back(element.text);
    }
    return {"[" + join(texts, ", ") + "]"};
}

std::string json_document(const JsonMembers& members) {
    return "{\n  " + join(members_of(members), ",\n  ") + "\n}\n";
}

}  // namespace ad_ctl
