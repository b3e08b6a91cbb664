#include "image_update.h"

#include "cached_document.h"
#include "device_state.h"
#include "firmware.h"
#include "image_download.h"
#include "log.h"
#include "manifest.h"
#include "part_file.h"
#include "settings.h"
#include "stored_image.h"
#include "update_index.h"
#include "version.h"

#include <unistd.h>

namespace ad_agent {
namespace {

constexpr char index_path[] = "/update.ini";
constexpr char index_name[] = "update.ini";
constexpr std::uint64_t max_index_size = 64ULL * 1024;

/** After so many repairs in vain the server is asked first. */
constexpr int max_repairs = 3;

class Update {
public:
    Update(const DevicePaths& paths, const DataDirectory& directory, std::string stored_version)
        : paths_(paths),
          directory_(directory),
          state_(read_state(directory)),
          firmware_(firmware_version()),
          stored_(std::move(stored_version)),
          recorded_(read_cache_version(directory.path_of(cache_manifest_name))),
          builtin_(read_firmware_copy_version(paths.firmware_manifest)) {}

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
        auto offered = offer_newer();
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
            state_.offered_version == stored_ && state_.offered_firmware != firmware_;
        return is_version(stored_) && stored_ != recorded_ && is_newer(stored_, builtin_) &&
               !is_other_firmware;
    }

    /** How often the stored image was offered again. */
    int repairs() const { return state_.offered_version == stored_ ? state_.repairs : 0; }

    Result<std::string> offer_stored() {
        const auto copied = copy_stored_image(paths_.stored_image, directory_, state_);
        if (!copied) {
            return Failure(copied.error());
        }
        record_offer(stored_, repairs() + 1);
        return "installation of version " + stored_ +
               " was interrupted; offering the stored image again";
    }

    Result<UpdateIndex> fetch_index(const Settings& settings) const {
        const auto validate = [](const std::string& text) -> Result<> {
            const auto index = parse_update_index(text);
            return index ? Result<>() : Failure(index.error());
        };
        const auto document = fetch_document(settings, directory_,
                                             {index_path, index_name, max_index_size, validate});
        return document ? parse_update_index(document->text) : Failure(document.error());
    }

    /** Returns why an image is not for this device, or none if it is. */
    std::optional<std::string> rejection_reason(const UpdateIndex& index) const {
        const std::string image = "version " + index.version;
        if (!is_newer(index.version, stored_)) {
            return image + " is not newer than the stored version " + stored_;
        }
        if (!is_newer(index.version, builtin_)) {
            return image + " is not newer than the firmware's version " + builtin_;
        }
        const bool has_copy = access(paths_.updatable_library.c_str(), F_OK) == 0;
        if (has_copy && !is_newer(index.version, recorded_)) {
            return image + " is not newer than the installed version " + recorded_;
        }
        if (state_.is_bad(index.sha256)) {
            return "refusing " + image + ": its library failed to load on this device";
        }
        const auto mismatch = firmware_mismatch(index, firmware_);
        if (mismatch) {
            return "refusing " + image + ": " + *mismatch;
        }
        return std::nullopt;
    }

    Result<std::string> offer_newer() {
        const auto settings = load_settings(paths_.configuration);
        if (!settings) {
            return Failure(settings.error());
        }
        const auto index = fetch_index(*settings);
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
        if (!exists) {
            log_line("update: downloading version " + index->version + ", newer than " + stored_);
            const auto downloaded = download_image(*settings, directory_, *index);
            if (!downloaded) {
                return Failure(downloaded.error());
            }
        }
        record_offer(index->version, 0);
        return "version " + index->version +
               (exists ? " was already downloaded to " : " downloaded to ") +
               directory_.path_of(image_name);
    }

    void record_offer(const std::string& version, int repairs) {
        state_.offered_version = version;
        state_.offered_firmware = firmware_;
        state_.repairs = repairs;
        const auto written = write_state(directory_, state_);
        if (!written) {
            log_line("update: " + written.error().message);
        }
    }

    const DevicePaths& paths_;
    const DataDirectory& directory_;
    DeviceState state_;
    std::string firmware_;
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
