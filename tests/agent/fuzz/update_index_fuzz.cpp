// Whatever a server sends as its index is rejected with a reason, or yields values that are safe.
#include "update_index.h"
#include "version.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto index = ad_agent::parse_update_index(std::string(data, data + size));
    const auto is_safe = [&] {
        const bool is_for_any = index->min_firmware.empty() && index->max_firmware.empty();
        return ad_agent::is_version(index->version) && index->sha256.size() == 64 &&
               index->size > 0 && index->size <= ad_agent::max_image_size &&
               index->file.find_first_of("/\\%?# ") == std::string::npos && index->file[0] != '.' &&
               index->min_firmware.find('\n') == std::string::npos &&
               firmware_mismatch(*index, "").has_value() != is_for_any;
    };
    if (index ? !is_safe() : index.error().message.empty()) {
        abort();
    }
    return 0;
}
