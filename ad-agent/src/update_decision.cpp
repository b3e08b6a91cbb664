#include "update_decision.h"

#include "base/decimal_version.h"
#include "manifest.h"
#include "stored_image.h"
#include "utc_time.h"
#include "version.h"

#include <unistd.h>

namespace ad_agent {
namespace {

/** After so many repairs in vain the server is asked first. */
constexpr int max_repairs = 3;

/** Returns why a version is not newer than what the device has and had, or none if it is. */
std::optional<std::string> age_reason(const UpdateFacts& facts, const std::string& version) {
    if (!is_newer(version, facts.stored)) {
        return "not newer than the stored version " + facts.stored;
    }
    if (!is_newer(version, facts.builtin)) {
        return "not newer than the firmware's version " + facts.builtin;
    }
    if (facts.has_copy && !is_newer(version, facts.recorded)) {
        return "not newer than the installed version " + facts.recorded;
    }
    // The host could not store it.
    if (is_newer(facts.floor, version)) {
        return "older than " + facts.floor + ", the highest version ever stored here";
    }
    return std::nullopt;
}

}  // namespace

UpdateFacts read_update_facts(const DevicePaths& paths, const std::string& stored_version,
                              const std::string& firmware) {
    return {stored_version,
            read_cache_version(paths.data_directory + "/" + cache_manifest_name),
            read_firmware_copy_version(paths.firmware_manifest),
            read_floor(paths.floor),
            access(paths.updatable_library.c_str(), F_OK) == 0,
            {"", firmware}};
}

bool was_interrupted(const UpdateFacts& facts, const DeviceState& state) {
    const bool is_other_firmware =
        state.offered_version == facts.stored && state.offered_firmware != facts.device.firmware;
    return base::is_decimal_version(facts.stored) && facts.stored != facts.recorded &&
           is_newer(facts.stored, facts.builtin) && !is_other_firmware;
}

int repairs_of_stored(const UpdateFacts& facts, const DeviceState& state) {
    return state.offered_version == facts.stored ? state.repairs : 0;
}

bool repairs_first(const UpdateFacts& facts, const DeviceState& state) {
    return was_interrupted(facts, state) && repairs_of_stored(facts, state) < max_repairs;
}

std::optional<std::string> rejection_reason(const UpdateFacts& facts, const DeviceState& state,
                                            const std::optional<RefusedImage>& bad,
                                            const UpdateIndex& index, std::int64_t now) {
    const std::string image = "version " + index.version;
    // Before the versions, so that the reason stays true after a fallback.
    if (bad) {
        return image + " refused: " + reason_text(*bad);
    }
    const auto age = age_reason(facts, index.version);
    if (age) {
        return image + " is " + *age;
    }
    auto mismatch = index.target.product.empty()
                        ? std::nullopt
                        : product_mismatch(index.target.product, facts.device);
    if (!mismatch) {
        mismatch = firmware_mismatch(index.target, facts.device.firmware);
    }
    if (mismatch) {
        return image + " refused: " + *mismatch;
    }
    const RefusedImage* const wrong = state.wrong.find(index.sha256);
    // Not if the index was corrected.
    if (wrong && wrong->version == index.version && must_wait(*wrong, now)) {
        return image + " refused until " + format_utc(retry_time(*wrong)) + ": " + wrong->reason;
    }
    return std::nullopt;
}

}  // namespace ad_agent
