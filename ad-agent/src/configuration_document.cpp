#include "configuration_document.h"

#include "kept_document.h"

#include <algorithm>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr std::uint64_t MAX_DOCUMENT_SIZE = 1024ULL * 1024;

/**
 * Tells a configuration document from what a half-configured server or a login
 * page in between gives for it: it is UTF-8 text and a JSON object from its first
 * to its last character. What is inside is for its reader to judge.
 */
bool is_json_object(const std::string& text) {
    constexpr char BLANKS[] = " \t\r\n";
    const std::size_t first = text.find_first_not_of(BLANKS);
    const std::size_t last = text.find_last_not_of(BLANKS);
    return first != std::string::npos && first != last && text[first] == '{' && text[last] == '}' &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

}  // namespace

std::string document_name(const std::string& url_path) {
    if (url_path.size() < 2 || url_path.front() != '/' || url_path.back() == '/') return "";
    std::string name = url_path.substr(1);
    const auto is_plain = [](char c) { return g_ascii_isalnum(c) || c == '_' || c == '/'; };
    if (!std::all_of(name.begin(), name.end(), is_plain)) return "";
    std::replace(name.begin(), name.end(), '/', '-');
    return name + ".json";
}

bool keep_configuration_document(const Settings& settings, const DataFolder& folder,
                                 const std::string& url_path, std::string& message) {
    const std::string name = document_name(url_path);
    if (name.empty()) {
        message = "it is not a URL path of letters and digits";
        return false;
    }
    const auto problem_of = [](const std::string& text) {
        return is_json_object(text) ? "" : "the answer is not a JSON object";
    };
    const auto document =
        fetch_document(settings, folder, {url_path, name, MAX_DOCUMENT_SIZE, problem_of}, message);
    if (!document) return false;
    message = document->is_new ? "kept as " + folder.path_of(name) + ", " +
                                     std::to_string(document->text.size()) + " bytes"
                               : "has not changed";
    return true;
}

}  // namespace ad_agent
