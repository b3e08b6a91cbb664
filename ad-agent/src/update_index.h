/**
 * The content server's index, "update.ini": which image is the newest.
 *
 *     [image]
 *     version=1.06
 *     size=151552
 *     sha256=<64 hexadecimal digits>
 *     file=zelADAgent-1.06.img
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
};

/** Reads an index. @return none with the reason in error */
std::optional<UpdateIndex> parse_update_index(const std::string& text, std::string& error);

}  // namespace ad_agent

#endif
