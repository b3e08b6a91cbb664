#include "update_index.h"

#include "base/glib_owned.h"
#include "version.h"

#include <algorithm>
#include <cstring>

namespace ad_agent {
namespace {

constexpr std::size_t sha256_digits = 64;
constexpr std::size_t max_firmware_length = 255;
constexpr char group[] = "image";
constexpr char hex_digits[] = "0123456789abcdef";
constexpr char name_characters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-";

/** Reads a key, as an empty string if it is missing. */
std::string read_text(GKeyFile* file, const char* key) {
    const base::Owned<char> text(g_key_file_get_string(file, group, key, nullptr));
    return text ? text.get() : "";
}

bool consists_of(const std::string& text, const char* characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

bool is_firmware_version(const std::string& text) {
    return text.size() <= max_firmware_length &&
           std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isprint(c); });
}

Result<> validate(const UpdateIndex& index) {
    if (!is_version(index.version)) {
        return failure("[image] version is not a decimal fraction");
    }
    if (index.size == 0 || index.size > max_image_size) {
        return failure("[image] size is not a number from 1 to " + std::to_string(max_image_size));
    }
    if (index.sha256.size() != sha256_digits || !consists_of(index.sha256, hex_digits)) {
        return failure("[image] sha256 is not 64 hexadecimal digits");
    }
    if (!consists_of(index.file, name_characters) || index.file[0] == '.') {
        return failure("[image] file is not a plain file name");
    }
    if (!is_firmware_version(index.min_firmware) || !is_firmware_version(index.max_firmware)) {
        return failure("[image] min_firmware or max_firmware is not a firmware version");
    }
    return {};
}

}  // namespace

Result<UpdateIndex> parse_update_index(const std::string& text) {
    const base::Owned<GKeyFile> file(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, &error)) {
        return failure(base::Owned<GError>(error)->message);
    }

    UpdateIndex index;
    index.version = read_text(file.get(), "version");
    index.size = g_key_file_get_uint64(file.get(), group, "size", nullptr);
    index.sha256 = read_text(file.get(), "sha256");
    std::transform(index.sha256.begin(), index.sha256.end(), index.sha256.begin(), g_ascii_tolower);
    index.file = read_text(file.get(), "file");
    index.min_firmware = read_text(file.get(), "min_firmware");
    index.max_firmware = read_text(file.get(), "max_firmware");

    const auto valid = validate(index);
    if (!valid) {
        return Failure(valid.error());
    }
    return index;
}

std::optional<std::string> firmware_mismatch(const UpdateIndex& index,
                                             const std::string& firmware) {
    const std::string& min = index.min_firmware;
    const std::string& max = index.max_firmware;
    if (min.empty() && max.empty()) {
        return std::nullopt;
    }
    if (firmware.empty()) {
        return "it requires certain firmware, and the version of this one is unknown";
    }
    if (!min.empty() && strverscmp(firmware.c_str(), min.c_str()) < 0) {
        return "it requires firmware " + min + " or later, this is " + firmware;
    }
    if (!max.empty() && strverscmp(firmware.c_str(), max.c_str()) > 0) {
        return "it requires firmware " + max + " or earlier, this is " + firmware;
    }
    return std::nullopt;
}

}  // namespace ad_agent
