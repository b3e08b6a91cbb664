/**
 * Which devices an image is for.
 */
#pragma once

#include "result.h"

#include <optional>
#include <string>

namespace ad_agent {

/** What an index or an image states; empty for any. */
struct ImageTarget {
    std::string product;
    /** The first and the last firmware version. */
    std::string min_firmware;
    std::string max_firmware;
};

/** What a device is. */
struct DeviceIdentity {
    /** Empty if the firmware names no product. */
    std::string product;
    /** Empty if it is not known. */
    std::string firmware;
};

/**
 * Reads the product that the firmware names in the file `path`. Returns an empty name if there
 * is no such file; fails if it is malformed or users other than root could change it.
 */
Result<std::string> read_product(const std::string& path);

/**
 * Compares products, which must be equal: an image for none is not for a device with one.
 * @return what the image is for and what the device is, or none if that is the same
 */
std::optional<std::string> product_mismatch(const std::string& product,
                                            const DeviceIdentity& device);

/**
 * Compares a firmware version with those that an image is for, as strverscmp(3) does:
 * T-1200.9 is before T-1200.10. Firmware that is not known only matches an image for any.
 * @return why the image is not for this firmware, or none if it is
 */
std::optional<std::string> firmware_mismatch(const ImageTarget& target,
                                             const std::string& firmware);

}  // namespace ad_agent
