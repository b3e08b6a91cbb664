#include "update_index.h"

#include "glib_owned.h"
#include "version.h"

#include <algorithm>
#include <cstring>

namespace ad_agent {
namespace {

constexpr std::size_t SHA256_DIGITS = 64;
constexpr std::size_t MAX_FIRMWARE_LENGTH = 255;
constexpr char GROUP[] = "image";
constexpr char HEX_DIGITS[] = "0123456789abcdef";
constexpr char NAME_CHARACTERS[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-";

/** Gives a key's text, empty when it is not there. */
std::string read_text(GKeyFile* file, const char* key) {
    const OwnedText text(g_key_file_get_string(file, GROUP, key, nullptr));
    return text ? text.get() : "";
}

bool consists_of(const std::string& text, const char* characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

/** Whether a text is one that a platform may give as its firmware's version. */
bool is_firmware_version(const std::string& text) {
    return text.size() <= MAX_FIRMWARE_LENGTH &&
           std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isprint(c); });
}

/** Gives what is wrong with an index, empty when it is good. */
std::string problem_of(const UpdateIndex& index) {
    if (!is_version(index.version)) return "[image] version is not a decimal fraction";
    if (index.size == 0 || index.size > MAX_IMAGE_SIZE)
        return "[image] size is not a number of bytes from 1 to " + std::to_string(MAX_IMAGE_SIZE);
    if (index.sha256.size() != SHA256_DIGITS || !consists_of(index.sha256, HEX_DIGITS))
        return "[image] sha256 is not 64 hexadecimal digits";
    if (!consists_of(index.file, NAME_CHARACTERS) || index.file[0] == '.')
        return "[image] file is not a plain file name";
    if (!is_firmware_version(index.min_firmware) || !is_firmware_version(index.max_firmware))
        return "[image] min_firmware or max_firmware is not a firmware version";
    return "";
}

}  // namespace

std::optional<UpdateIndex> parse_update_index(const std::string& text, std::string& error) {
    const OwnedKeyFile file(g_key_file_new());
    GError* failure = nullptr;
    if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE,
                                   &failure)) {
        error = OwnedError(failure)->message;
        return std::nullopt;
    }

    UpdateIndex index;
    index.version = read_text(file.get(), "version");
    index.size = g_key_file_get_uint64(file.get(), GROUP, "size", nullptr);
    const std::string sha256 = read_text(file.get(), "sha256");
    const OwnedText lower(g_ascii_strdown(sha256.data(), static_cast<gssize>(sha256.size())));
    index.sha256 = lower.get();
    index.file = read_text(file.get(), "file");
    index.min_firmware = read_text(file.get(), "min_firmware");
    index.max_firmware = read_text(file.get(), "max_firmware");

    error = problem_of(index);
    if (error.empty()) return index;
    return std::nullopt;
}

std::string firmware_mismatch(const UpdateIndex& index, const std::string& firmware) {
    const bool for_any = index.min_firmware.empty() && index.max_firmware.empty();
    if (for_any) return "";
    if (firmware.empty())
        return "it is for some firmware only, and this one's version is not known";
    if (!index.min_firmware.empty() && strverscmp(firmware.c_str(), index.min_firmware.c_str()) < 0)
        return "it needs firmware " + index.min_firmware + " at least, this is " + firmware;
    if (!index.max_firmware.empty() && strverscmp(firmware.c_str(), index.max_firmware.c_str()) > 0)
        return "it is for firmware up to " + index.max_firmware + ", this is " + firmware;
    return "";
}

}  // namespace ad_agent
