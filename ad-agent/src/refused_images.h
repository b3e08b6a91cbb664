/**
 * Images that are not offered on this device, and for how long.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ad_agent {

/** An image that is not offered. Entries of older libraries have a SHA-256 only. */
struct RefusedImage {
    std::string sha256;
    std::string version;
    /** When it was last refused, in seconds since 1970; 0 if it is not known. */
    std::int64_t time = 0;
    std::string reason;
    /** How often it was refused. */
    int count = 1;
};

/** Returns the reason and the day: "REASON here on 2026-11-21". */
std::string reason_text(const RefusedImage& image);

/**
 * Returns when an image may be tried again, in seconds since 1970: an hour after it was refused,
 * twice as long each further time, and a week at most.
 */
std::int64_t retry_time(const RefusedImage& image);

/** Whether an image must wait until then. It need not if the clock was set back since. */
bool must_wait(const RefusedImage& image, std::int64_t now);

/** Refused images by their SHA-256, each once, the latest last. Only the latest 32 are kept. */
class RefusedImages {
public:
    const RefusedImage* find(const std::string& sha256) const;
    /** Adds an image or replaces the one with its SHA-256. */
    void add(RefusedImage image);
    const std::vector<RefusedImage>& all() const { return images_; }

private:
    std::vector<RefusedImage> images_;
};

}  // namespace ad_agent
