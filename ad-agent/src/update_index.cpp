#include "update_index.h"

#include "base/glib_owned.h"
#include "base/trusted_comment.h"
#include "utc_time.h"

#include <algorithm>

namespace ad_agent {
namespace {

constexpr std::size_t sha256_digits = 64;
constexpr std::size_t max_file_length = 255;
constexpr char image_group[] = "image";
constexpr char index_group[] = "index";
constexpr char hex_digits[] = "0123456789abcdef";
constexpr char name_characters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-";

using KeyFile = base::Owned<GKeyFile>;

Result<KeyFile> parse_key_file(const std::string& text) {
    KeyFile file(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, &error)) {
        return failure(base::Owned<GError>(error)->message);
    }
    return file;
}

/** Reads a key, as an empty string if it is missing. */
std::string read_text(const KeyFile& file, const char* group, const char* key) {
    const base::Owned<char> text(g_key_file_get_string(file.get(), group, key, nullptr));
    return text ? text.get() : "";
}

bool consists_of(const std::string& text, const char* characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

bool is_optional_firmware(const std::string& text) {
    return text.empty() || base::is_firmware_version(text);
}

Result<> validate(const UpdateIndex& index) {
    if (!base::is_decimal_version(index.version)) {
        return failure("[image] version is not a decimal fraction");
    }
    if (index.size == 0 || index.size > max_image_size) {
        return failure("[image] size is not a number from 1 to " + std::to_string(max_image_size));
    }
    if (index.sha256.size() != sha256_digits || !consists_of(index.sha256, hex_digits)) {
        return failure("[image] sha256 is not 64 hexadecimal digits");
    }
    if (!consists_of(index.file, name_characters) || index.file[0] == '.' ||
        index.file.size() > max_file_length) {
        return failure("[image] file is not a plain file name");
    }
    if (!index.target.product.empty() && !base::is_product(index.target.product)) {
        return failure("[image] product is not a product's name");
    }
    if (!is_optional_firmware(index.target.min_firmware) ||
        !is_optional_firmware(index.target.max_firmware)) {
        return failure("[image] min_firmware or max_firmware is not a firmware version");
    }
    return {};
}

}  // namespace

Result<UpdateIndex> parse_update_index(const std::string& text) {
    const auto file = parse_key_file(text);
    if (!file) {
        return Failure(file.error());
    }
    UpdateIndex index;
    index.version = read_text(*file, image_group, "version");
    index.size = g_key_file_get_uint64(file->get(), image_group, "size", nullptr);
    index.sha256 = read_text(*file, image_group, "sha256");
    std::transform(index.sha256.begin(), index.sha256.end(), index.sha256.begin(), g_ascii_tolower);
    index.file = read_text(*file, image_group, "file");
    index.target.product = read_text(*file, image_group, "product");
    index.target.min_firmware = read_text(*file, image_group, "min_firmware");
    index.target.max_firmware = read_text(*file, image_group, "max_firmware");

    const auto valid = validate(index);
    if (!valid) {
        return Failure(valid.error());
    }
    return index;
}

Result<Publication> parse_publication(const std::string& text) {
    const auto file = parse_key_file(text);
    if (!file) {
        return Failure(file.error());
    }
    Publication publication;
    const std::string serial = read_text(*file, index_group, "serial");
    if (!g_ascii_string_to_unsigned(serial.c_str(), 10, 0, G_MAXUINT64, &publication.serial,
                                    nullptr)) {
        return failure("[index] serial is not a decimal number");
    }
    const auto issued = parse_utc(read_text(*file, index_group, "issued"));
    const auto expires = parse_utc(read_text(*file, index_group, "expires"));
    if (!issued || !expires) {
        return failure("[index] issued or expires is not a UTC time");
    }
    publication.issued = *issued;
    publication.expires = *expires;
    return publication;
}

}  // namespace ad_agent
