#include "validator.h"

#include <algorithm>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr std::size_t MAX_LENGTH = 256;
constexpr std::uint64_t MAX_FILE_SIZE = 8192;

std::string file_name(const std::string& name) { return name + ".validator"; }

}  // namespace

bool is_validator(const std::string& text) {
    const bool is_etag = text.compare(0, 1, "\"") == 0 || text.compare(0, 3, "W/\"") == 0;
    return is_etag && text.size() <= MAX_LENGTH &&
           std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isprint(c); });
}

bool is_strong(const std::string& validator) {
    return is_validator(validator) && validator.compare(0, 2, "W/") != 0;
}

std::string read_validator(const DataFolder& folder, const std::string& name,
                           const std::string& source) {
    const auto text = folder.read(file_name(name), MAX_FILE_SIZE);
    const std::string start = source + "\n";
    if (!text || text->compare(0, start.size(), start) != 0 || text->back() != '\n') return "";
    const std::string validator =
        text->substr(start.size(), text->size() - std::min(text->size(), start.size() + 1));
    return is_validator(validator) ? validator : "";
}

bool keep_validator(const DataFolder& folder, const std::string& name, const std::string& source,
                    const std::string& validator, std::string& error) {
    if (is_validator(validator))
        return folder.write(file_name(name), source + "\n" + validator + "\n", error);
    remove_validator(folder, name);
    return true;
}

void remove_validator(const DataFolder& folder, const std::string& name) {
    folder.remove(file_name(name));
    PartFile::remove_leftover(folder, file_name(name));
}

}  // namespace ad_agent
