/**
 * Which image a device may be offered. Decides, and changes nothing.
 */
#pragma once

#include "device_paths.h"
#include "device_state.h"
#include "image_target.h"
#include "refused_images.h"
#include "update_index.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

/** What a device has and had, as far as updates depend on it. Versions may be no_version. */
struct UpdateFacts {
    /** The versions of the stored image, of what was installed, and of the firmware's copy. */
    std::string stored;
    std::string recorded;
    std::string builtin;
    /** The highest version that was ever stored. */
    std::string floor;
    /** Whether there is an updatable copy. */
    bool has_copy = false;
    DeviceIdentity device;
};

/**
 * Reads the facts, the product aside, which fails by itself.
 * @param stored_version  what the stored image states, or no_version
 * @param firmware        the firmware's version, empty if it is not known
 */
UpdateFacts read_update_facts(const DevicePaths& paths, const std::string& stored_version,
                              const std::string& firmware);

/**
 * Whether the stored image was put in place but not all of its files were installed.
 * Not so if the firmware has changed since, which removes what was installed, or if
 * the host would remove the copy for being no newer than the firmware's.
 */
bool was_interrupted(const UpdateFacts& facts, const DeviceState& state);

/** How often the stored image was offered again. */
int repairs_of_stored(const UpdateFacts& facts, const DeviceState& state);

/** Whether the stored image is offered before the server is asked: not after too many repairs. */
bool repairs_first(const UpdateFacts& facts, const DeviceState& state);

/**
 * Returns why the index's image is not downloaded, or none if it is.
 * @param bad  the image's entry among the bad ones, if it is one
 * @param now  the time in seconds since 1970
 */
std::optional<std::string> rejection_reason(const UpdateFacts& facts, const DeviceState& state,
                                            const std::optional<RefusedImage>& bad,
                                            const UpdateIndex& index, std::int64_t now);

}  // namespace ad_agent
