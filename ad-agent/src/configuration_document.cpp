#include "configuration_document.h"

#include "cached_document.h"

#include <algorithm>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr std::uint64_t max_document_size = 1024ULL * 1024;

/**
 * Accepts UTF-8 text that is a JSON object from its first to its last character. That
 * rejects what a misconfigured server or a captive portal returns; the content is for
 * the document's reader to check.
 */
Result<> validate(const std::string& text) {
    constexpr char blanks[] = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    const std::size_t last = text.find_last_not_of(blanks);
    const bool has_braces = first != std::string::npos && text[first] == '{' && text[last] == '}';
    if (!has_braces || !g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        return failure("response is not a JSON object");
    }
    return {};
}

}  // namespace

std::string document_name(const std::string& url_path) {
    if (url_path.size() < 2 || url_path.front() != '/' || url_path.back() == '/') {
        return "";
    }
    std::string name = url_path.substr(1);
    const auto is_plain = [](char c) { return g_ascii_isalnum(c) || c == '_' || c == '/'; };
    if (!std::all_of(name.begin(), name.end(), is_plain)) {
        return "";
    }
    std::replace(name.begin(), name.end(), '/', '-');
    return name + ".json";
}

Result<std::string> fetch_configuration_document(const Settings& settings,
                                                 const DataDirectory& directory,
                                                 const std::string& url_path) {
    const std::string name = document_name(url_path);
    if (name.empty()) {
        return failure("not a URL path of letters, digits and underscores");
    }
    const auto document =
        fetch_document(settings, directory, {url_path, name, max_document_size, validate});
    if (!document) {
        return Failure(document.error());
    }
    if (!document->is_modified) {
        return "not modified";
    }
    return "stored as " + directory.path_of(name) + ", " + std::to_string(document->text.size()) +
           " bytes";
}

}  // namespace ad_agent
