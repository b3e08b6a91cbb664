#include "image_update.h"

#include "device_state.h"
#include "firmware.h"
#include "guard_list.h"
#include "image_download.h"
#include "image_inspection.h"
#include "log.h"
#include "part_file.h"
#include "refused_images.h"
#include "settings.h"
#include "stored_image.h"
#include "trusted_index.h"
#include "update_decision.h"
#include "update_index.h"
#include "utc_time.h"

#include <ctime>

namespace ad_agent {
namespace {

class Update {
public:
    Update(const DevicePaths& paths, const DataDirectory& directory,
           const std::string& stored_version)
        : paths_(paths),
          directory_(directory),
          state_(read_state(directory)),
          facts_(read_update_facts(paths, stored_version, firmware_version())) {}

    Result<std::string> run() {
        const bool needs_repair = was_interrupted(facts_, state_);
        const bool repair_first = repairs_first(facts_, state_);
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
    Result<std::string> offer_stored() {
        const auto copied = copy_stored_image(paths_.stored_image, directory_, state_);
        if (!copied) {
            return Failure(copied.error());
        }
        record_offer(facts_.stored, repairs_of_stored(facts_, state_) + 1);
        save_state();
        return "installation of version " + facts_.stored +
               " was interrupted; offering the stored image again";
    }

    /** Has the index's image in the data directory. Returns why it is wrong, or none. */
    Result<std::optional<std::string>> obtain(const Settings& settings, const UpdateIndex& index,
                                              bool exists) const {
        if (!exists) {
            log_line("update: downloading version " + index.version + ", newer than " +
                     facts_.stored);
            auto wrong = download_image(settings, directory_, index);
            if (!wrong || *wrong) {
                return wrong;
            }
        }
        auto wrong = inspect_image(directory_, image_name, index, facts_.device);
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
        facts_.device.product = std::move(*product);
        const auto index = fetch_index(settings, directory_, paths_.index_keys, state_);
        if (!index) {
            return Failure(index.error());
        }
        const auto bad = find_bad_image(directory_, state_, index->sha256);
        const auto reason = rejection_reason(facts_, state_, bad, *index, std::time(nullptr));
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
        state_.offered_firmware = facts_.device.firmware;
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
    UpdateFacts facts_;
};

}  // namespace

Result<std::string> offer_image(const DevicePaths& paths, const DataDirectory& directory,
                                const std::string& stored_version) {
    PartFile::remove_all_except(directory, image_name);
    return Update(paths, directory, stored_version).run();
}

}  // namespace ad_agent
