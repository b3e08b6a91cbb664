#include "refused_images.h"

#include "utc_time.h"

#include <algorithm>

namespace ad_agent {
namespace {

constexpr std::size_t max_refused = 32;
/** In seconds. */
constexpr std::int64_t min_delay = 3600;
constexpr std::int64_t max_delay = min_delay * 24 * 7;

}  // namespace

std::string reason_text(const RefusedImage& image) {
    constexpr std::size_t date_length = 10;
    // Older libraries recorded nothing but images whose library failed to load.
    const std::string reason = image.reason.empty() ? "its library failed to load" : image.reason;
    return reason + " here" +
           (image.time != 0 ? " on " + format_utc(image.time).substr(0, date_length) : "");
}

std::int64_t retry_time(const RefusedImage& image) {
    std::int64_t delay = min_delay;
    for (int i = 1; i < image.count && delay < max_delay; ++i) {
        delay *= 2;
    }
    return image.time + std::min(delay, max_delay);
}

bool must_wait(const RefusedImage& image, std::int64_t now) {
    return image.time <= now && now < retry_time(image);
}

const RefusedImage* RefusedImages::find(const std::string& sha256) const {
    const auto found = std::find_if(images_.begin(), images_.end(), [&](const RefusedImage& image) {
        return image.sha256 == sha256;
    });
    return found == images_.end() ? nullptr : &*found;
}

void RefusedImages::add(RefusedImage image) {
    images_.erase(
        std::remove_if(images_.begin(), images_.end(),
                       [&](const RefusedImage& other) { return other.sha256 == image.sha256; }),
        images_.end());
    images_.push_back(std::move(image));
    if (images_.size() > max_refused) {
        images_.erase(images_.begin());
    }
}

}  // namespace ad_agent
