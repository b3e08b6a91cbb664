#include "image_update.h"

#include "base/decimal_version.h"
#include "device_state.h"
#include "firmware.h"
#include "guard_list.h"
#include "image_download.h"
#include "image_inspection.h"
#include "image_target.h"
#include "log.h"
#include "manifest.h"
#include "part_file.h"
#include "refused_images.h"
#include "settings.h"
#include "stored_image.h"
#include "trusted_index.h"
#include "update_index.h"
#include "utc_time.h"
#include "version.h"

#include <ctime>

#include <unistd.h>

namespace ad_agent {
namespace {

/** After so many repairs in vain the server is asked first. */
constexpr int max_repairs = 3;

class Update {
public:
    Update(const DevicePaths& paths, const DataDirectory& directory, std::string stored_version)
        : paths_(paths),
          directory_(directory),
          state_(read_state(directory)),
          stored_(std::move(stored_version)),
          recorded_(read_cache_version(directory.path_of(cache_manifest_name))),
          builtin_(read_firmware_copy_version(paths.firmware_manifest)) {
        device_.firmware = firmware_version();
    }

    Result<std::string> run() {
        const bool needs_repair = was_interrupted();
        const bool repair_first = needs_repair && repairs() < max_repairs;
        if (repair_first) {
            auto offered = offer_stored();
            if (offered) {
                return offered;
            }
            log_line("update: " + offered.error().message);
        }
        auto offered = check_server();
        if (offered || !needs_repair || repair_first) {
            return offered;
        }
        log_line("update: " + offered.error().message);
        return offer_stored();
    }

private:
    /**
     * Whether the stored image was put in place but not all of its files were installed.
     * Not so if the firmware has changed since, which removes what was installed, or if
     * the host would remove the copy for being no newer than the firmware's.
     */
    bool was_interrupted() const {
        const bool is_other_firmware =
            state_.offered_version == stored_ && state_.offered_firmware != device_.firmware;
        return base::is_decimal_version(stored_) && stored_ != recorded_ &&
               is_newer(stored_, builtin_) && !is_other_firmware;
    }

    /** How often the stored image was offered again. */
    int repairs() const { return state_.offered_version == stored_ ? state_.repairs : 0; }

    Result<std::string> offer_stored() {
        const auto copied = copy_stored_image(paths_.stored_image, directory_, state_);
        if (!copied) {
            return Failure(copied.error());
        }
        record_offer(stored_, repairs() + 1);
        save_state();
        return "installation of version " + stored_ +
               " was interrupted; offering the stored image again";
    }

    /** Returns why a version is not newer than what the device has and had, or none if it is. */
    std::optional<std::string> age_reason(const std::string& version) const {
        const bool has_copy = access(paths_.updatable_library.c_str(), F_OK) == 0;
        if (!is_newer(version, stored_)) {
            return "not newer than the stored version " + stored_;
        }
        if (!is_newer(version, builtin_)) {
            return "not newer than the firmware's version " + builtin_;
        }
        if (has_copy && !is_newer(version, recorded_)) {
            return "not newer than the installed version " + recorded_;
        }
        // The host could not store it.
        const std::string floor = read_floor(paths_.floor);
        if (is_newer(floor, version)) {
            return "older than " + floor + ", the highest version ever stored here";
        }
        return std::nullopt;
    }

    /** Returns why the index's image is not downloaded, or none if it is. */
    std::optional<std::string> rejection_reason(const UpdateIndex& index) const {
        const std::string image = "version " + index.version;
        // Before the versions, so that the reason stays true after a fallback.
        const auto bad = find_bad_image(directory_, state_, index.sha256);
        if (bad) {
            return image + " refused: " + reason_text(*bad);
        }
        const auto age = age_reason(index.version);
        if (age) {
            return image + " is " + *age;
        }
        auto mismatch = index.target.product.empty()
                            ? std::nullopt
                            : product_mismatch(index.target.product, device_);
        if (!mismatch) {
            mismatch = firmware_mismatch(index.target, device_.firmware);
        }
        if (mismatch) {
            return image + " refused: " + *mismatch;
        }
        const RefusedImage* const wrong = state_.wrong.find(index.sha256);
        // Not if the index was corrected.
        if (wrong && wrong->version == index.version && must_wait(*wrong, std::time(nullptr))) {
            return image + " refused until " + format_utc(retry_time(*wrong)) + ": " +
                   wrong->reason;
        }
        return std::nullopt;
    }

    /** Has the index's image in the data directory. Returns why it is wrong, or none. */
    Result<std::optional<std::string>> obtain(const Settings& settings, const UpdateIndex& index,
                                              bool exists) const {
        if (!exists) {
            log_line("update: downloading version " + index.version + ", newer than " + stored_);
            auto wrong = download_image(settings, directory_, index);
            if (!wrong || *wrong) {
                return wrong;
            }
        }
        auto wrong = inspect_image(directory_, image_name, index, device_);
        if (!wrong || *wrong) {
            remove_download(directory_);
        }
        return wrong;
    }

    /** Remembers a wrong image, so that it is not downloaded again soon. */
    Failure refuse(const UpdateIndex& index, const std::string& reason) {
        const RefusedImage* const known = state_.wrong.find(index.sha256);
        const RefusedImage refused = {index.sha256, index.version, std::time(nullptr), reason,
                                      known ? known->count + 1 : 1};
        state_.wrong.add(refused);
        return failure("version " + index.version + " refused: " + reason +
                       "; not downloading it again before " + format_utc(retry_time(refused)));
    }

    Result<std::string> offer_newer(const Settings& settings) {
        auto product = read_product(paths_.product);
        if (!product) {
            return Failure(product.error());
        }
        device_.product = std::move(*product);
        const auto index = fetch_index(settings, directory_, paths_.index_keys, state_);
        if (!index) {
            return Failure(index.error());
        }
        const auto reason = rejection_reason(*index);
        if (reason) {
            remove_download(directory_);
            return failure(*reason);
        }
        // Left by an earlier update, if the host did not take it.
        const bool exists = is_downloaded(directory_, *index);
        const auto wrong = obtain(settings, *index, exists);
        if (!wrong) {
            return Failure(wrong.error());
        }
        if (*wrong) {
            return refuse(*index, **wrong);
        }
        record_offer(index->version, 0);
        return "version " + index->version +
               (exists ? " was already downloaded to " : " downloaded to ") +
               directory_.path_of(image_name);
    }

    /** Offers what the server has, and records when that was and what came of it. */
    Result<std::string> check_server() {
        const auto settings = load_settings(paths_.configuration);
        if (!settings) {
            return Failure(settings.error());
        }
        state_.check_time = std::time(nullptr);
        state_.check_url = index_url(*settings);
        auto offered = offer_newer(*settings);
        state_.check_result = offered ? *offered : offered.error().message;
        save_state();
        return offered;
    }

    void record_offer(const std::string& version, int repairs) {
        state_.offered_version = version;
        state_.offered_firmware = device_.firmware;
        state_.repairs = repairs;
    }

    void save_state() const {
        const auto written = write_state(directory_, state_);
        if (!written) {
            log_line("update: " + written.error().message);
        }
    }

    const DevicePaths& paths_;
    const DataDirectory& directory_;
    DeviceState state_;
    DeviceIdentity device_;
    /** The versions of the stored image, of what was installed, and of the firmware's copy. */
    std::string stored_;
    std::string recorded_;
    std::string builtin_;
};

}  // namespace

Result<std::string> offer_image(const DevicePaths& paths, const DataDirectory& directory,
                                const std::string& stored_version) {
    PartFile::remove_all_except(directory, image_name);
    return Update(paths, directory, stored_version).run();
}

}  // namespace ad_agent
