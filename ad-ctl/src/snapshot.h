/**
 * What is on the device, read once, with the code of the agent library and of the guard.
 */
#pragma once

#include "data_directory.h"
#include "device_paths.h"
#include "device_state.h"
#include "image_inspection.h"
#include "record.h"
#include "refused_images.h"
#include "result.h"
#include "service.h"
#include "settings.h"
#include "update_decision.h"
#include "update_index.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_ctl {

/** The image in the store. */
struct StoredImage {
    std::uint64_t size = 0;
    ad_agent::ImageTrailer trailer;
    /** Its entry among the bad images, if it is one. */
    std::optional<ad_agent::RefusedImage> bad;
};

struct Snapshot {
    /** In seconds since 1970. */
    std::int64_t time = 0;
    ad_agent::DevicePaths paths;
    Service service;
    /** The firmware's version that the daemon recorded at its last start, empty if none. */
    std::string recorded_firmware;
    /** Whether the platform could be asked for the firmware's version now. */
    bool has_platform = false;
    /** None before the first update. */
    std::optional<ad_agent::DataDirectory> directory;
    ad_agent::DeviceState state;
    ad_agent::RefusedImages guarded;
    ad_guard::Record record;
    std::optional<StoredImage> image;
    /** With the product, if that could be read. */
    ad_agent::UpdateFacts facts;
    ad_agent::Result<std::string> product;
    ad_agent::Result<ad_agent::Settings> settings;
    /** The index as it was fetched last. */
    ad_agent::Result<std::optional<ad_agent::UpdateIndex>> index;
    Unseen unseen;
};

Snapshot read_snapshot();

/** Returns the entry of a bad image, whether the agent library or the guard found it so. */
std::optional<ad_agent::RefusedImage> find_bad(const Snapshot& snapshot, const std::string& sha256);

}  // namespace ad_ctl
