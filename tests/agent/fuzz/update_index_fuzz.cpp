// Any bytes that a server may send as its index: they are refused with a reason,
// or give values that are safe to act on.
#include "update_index.h"
#include "version.h"

#include <cstdint>
#include <cstdlib>

namespace {

void require(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto index = ad_agent::parse_update_index(std::string(data, data + size));
    require(index || !index.error().message.empty());
    if (!index) return 0;

    require(ad_agent::is_version(index->version));
    require(index->size > 0 && index->size <= ad_agent::max_image_size);
    require(index->sha256.size() == 64);
    require(index->file.find_first_of("/\\%?# ") == std::string::npos && index->file[0] != '.');
    require(index->min_firmware.find('\n') == std::string::npos);
    const bool for_any = index->min_firmware.empty() && index->max_firmware.empty();
    for (const char* firmware : {"", "T-1200.1", "9"})
        require(!for_any || !ad_agent::firmware_mismatch(*index, firmware));
    return 0;
}
