#include "image_target.h"

#include "base/trusted_comment.h"
#include "trusted_file.h"

#include <cstring>

namespace ad_agent {

Result<std::string> read_product(const std::string& path) {
    const auto text = read_trusted_file(path, base::max_product_length + 1);
    if (!text) {
        return failure("refusing every image: " + text.error().message);
    }
    if (!*text) {
        return std::string();
    }
    std::string product = **text;
    if (!product.empty() && product.back() == '\n') {
        product.pop_back();
    }
    if (!base::is_product(product)) {
        return failure("refusing every image: " + path + " is not a product's name");
    }
    return product;
}

std::optional<std::string> product_mismatch(const std::string& product,
                                            const DeviceIdentity& device) {
    if (product == device.product) {
        return std::nullopt;
    }
    return (product.empty() ? "for no product" : "for product " + product) +
           (device.product.empty() ? ", this device names none"
                                   : ", this device is " + device.product);
}

std::optional<std::string> firmware_mismatch(const ImageTarget& target,
                                             const std::string& firmware) {
    const std::string& min = target.min_firmware;
    const std::string& max = target.max_firmware;
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
