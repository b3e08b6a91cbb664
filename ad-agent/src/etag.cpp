#include "etag.h"

#include "part_file.h"

#include <algorithm>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr std::size_t max_etag_length = 256;
constexpr std::uint64_t max_file_size = 8192;

std::string file_name(const std::string& name) { return name + ".validator"; }

}  // namespace

bool is_etag(const std::string& text) {
    const bool is_quoted = text.compare(0, 1, "\"") == 0 || text.compare(0, 3, "W/\"") == 0;
    return is_quoted && text.size() <= max_etag_length &&
           std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isprint(c); });
}

bool is_strong_etag(const std::string& etag) { return etag.compare(0, 1, "\"") == 0; }

std::string read_etag(const DataDirectory& directory, const std::string& name,
                      const std::string& source) {
    const auto text = directory.read(file_name(name), max_file_size);
    const std::string start = source + "\n";
    if (!text || text->compare(0, start.size(), start) != 0) {
        return "";
    }
    const std::string etag =
        text->substr(start.size(), text->find('\n', start.size()) - start.size());
    return is_etag(etag) ? etag : "";
}

Result<> store_etag(const DataDirectory& directory, const std::string& name,
                    const std::string& source, const std::string& etag) {
    if (!is_etag(etag)) {
        remove_etag(directory, name);
        return {};
    }
    std::string text = source;
    text.append("\n").append(etag).append("\n");
    return replace_file(directory, file_name(name), text);
}

void remove_etag(const DataDirectory& directory, const std::string& name) {
    directory.remove(file_name(name));
    PartFile::remove(directory, file_name(name));
}

}  // namespace ad_agent
