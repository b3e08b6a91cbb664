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
 * The firmware versions may be left out.
 */
#ifndef AD_AGENT_UPDATE_INDEX_H
#define AD_AGENT_UPDATE_INDEX_H

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/** An image larger than this is refused, whatever the index says. */
inline constexpr std::uint64_t MAX_IMAGE_SIZE = 512ULL * 1024 * 1024;

struct UpdateIndex {
    std::string version;
    std::uint64_t size = 0;
    std::string sha256;  // in lower case
    std::string file;    // a plain name below "images/"
    /** The first and the last firmware that the image is for; empty for any. */
    std::string min_firmware;
    std::string max_firmware;
};

/** Reads an index. @return none with the reason in error */
std::optional<UpdateIndex> parse_update_index(const std::string& text, std::string& error);

/**
 * Holds a device's firmware version against an index. Versions are compared as
 * strverscmp(3) does, runs of digits as numbers: T-1200.9 is before T-1200.10.
 * @param firmware  empty when it is not known, which only suits an image for any
 * @return why the image is not for this firmware, or an empty text
 */
std::string firmware_mismatch(const UpdateIndex& index, const std::string& firmware);

}  // namespace ad_agent

#endif
