/**
 * The content server's index, "update.ini": which image is the newest.
 *
 *     [image]
 *     version=1.06
 *     size=151552
 *     sha256=<64 hexadecimal digits>
 *     file=zelADAgent-1.06.img
 *     min_firmware=T-1200.1
 *     max_firmware=T-1299.9
 *
 * The firmware versions are optional.
 */
#pragma once

#include "result.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/** Larger images are rejected, whatever the index says. */
inline constexpr std::uint64_t max_image_size = 512ULL * 1024 * 1024;

struct UpdateIndex {
    std::string version;
    /** In bytes. */
    std::uint64_t size = 0;
    /** In lower case. */
    std::string sha256;
    /** A plain name below "images/". */
    std::string file;
    /** The first and the last firmware that the image is for; empty for any. */
    std::string min_firmware;
    std::string max_firmware;
};

/** Parses and validates an index. */
Result<UpdateIndex> parse_update_index(const std::string& text);

/**
 * Compares a firmware version with those that the image is for, as strverscmp(3) does:
 * T-1200.9 is before T-1200.10.
 * @param firmware  empty if it is unknown, which only matches an image for any firmware
 * @return why the image is not for this firmware, or none if it is
 */
std::optional<std::string> firmware_mismatch(const UpdateIndex& index, const std::string& firmware);

}  // namespace ad_agent
