/**
 * The content server's index, "update.ini": which image is the newest.
 *
 *     [image]
 *     version=1.06
 *     size=151552
 *     sha256=<64 hexadecimal digits>
 *     file=zelADAgent-1.06.img
 *     product=demo-box
 *     min_firmware=T-1200.1
 *     max_firmware=T-1299.9
 *
 *     [index]
 *     serial=42
 *     issued=2026-11-21T10:00:00Z
 *     expires=2026-12-21T10:00:00Z
 *
 * The product and the firmware versions are optional. A signed index has the second group,
 * and ends in its signature; see index_signature.h.
 */
#pragma once

#include "image_target.h"
#include "result.h"

#include <cstdint>
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
    ImageTarget target;
};

/** Parses and validates an index, its signature aside. */
Result<UpdateIndex> parse_update_index(const std::string& text);

/** What a signed index says about itself. */
struct Publication {
    /** Grows with each publication. */
    std::uint64_t serial = 0;
    /** In seconds since 1970. */
    std::int64_t issued = 0;
    std::int64_t expires = 0;
};

Result<Publication> parse_publication(const std::string& text);

}  // namespace ad_agent
