#include "image_update.h"

#include "device_state.h"
#include "firmware.h"
#include "image_download.h"
#include "kept_document.h"
#include "log.h"
#include "manifest.h"
#include "settings.h"
#include "stored_image.h"
#include "update_index.h"
#include "version.h"

#include <unistd.h>

namespace ad_agent {
namespace {

constexpr char INDEX_PATH[] = "/update.ini";
constexpr char INDEX_NAME[] = "update.ini";
constexpr std::uint64_t MAX_INDEX_SIZE = 64ULL * 1024;

/** An installation that was cut so often is tried only after the server was asked. */
constexpr int MAX_REPAIRS_BEFORE_SERVER = 3;

class Update {
public:
    Update(const Places& places, const DataFolder& folder, std::string stored_version)
        : m_places(places),
          m_folder(folder),
          m_state(read_state(folder)),
          m_firmware(ad_agent::firmware_version()),
          m_stored(std::move(stored_version)),
          m_recorded(read_cache_version(folder.path_of(CACHE_MANIFEST_NAME))),
          m_builtin(read_firmware_copy_version(places.firmware_manifest)) {}

    bool run(std::string& message) {
        const bool cut = was_cut();
        if (cut && m_state.repairs < MAX_REPAIRS_BEFORE_SERVER && offer_stored(message))
            return true;
        if (!message.empty()) log_line("update: " + message);
        if (offer_newer(message)) return true;
        if (!cut || m_state.repairs < MAX_REPAIRS_BEFORE_SERVER) return false;
        log_line("update: " + message);
        return offer_stored(message);
    }

private:
    bool updatable_copy_is_there() const {
        return access(m_places.updatable_library.c_str(), F_OK) == 0;
    }

    /**
     * Whether the stored image was put in place but its files were not installed to
     * the end. A firmware that has changed since has thrown the installation away,
     * and a copy that is not newer than the firmware's would be thrown away.
     */
    bool was_cut() const {
        const bool other_firmware =
            m_state.offered_version == m_stored && m_state.offered_firmware != m_firmware;
        return is_version(m_stored) && m_stored != m_recorded && is_newer(m_stored, m_builtin) &&
               !other_firmware;
    }

    bool offer_stored(std::string& message) {
        if (!copy_stored_image(m_places.stored_image, m_folder, m_state, message)) return false;
        if (m_state.offered_version != m_stored) m_state.repairs = 0;
        remember_offer(m_stored, m_state.repairs + 1);
        message = "the installation of version " + m_stored +
                  " was cut: the stored image is offered again";
        return true;
    }

    std::optional<UpdateIndex> fetch_index(const Settings& settings, std::string& error) const {
        const auto problem_of = [](const std::string& text) {
            std::string problem;
            parse_update_index(text, problem);
            return problem;
        };
        const auto document = fetch_document(
            settings, m_folder, {INDEX_PATH, INDEX_NAME, MAX_INDEX_SIZE, problem_of}, error);
        return document ? parse_update_index(document->text, error) : std::nullopt;
    }

    /** Gives why an image is not one for this device, empty when it is. */
    std::string objection(const UpdateIndex& index) const {
        const auto older_than = [&](const std::string& own) {
            return "the server's version " + index.version + " is not newer than " + own;
        };
        if (!is_newer(index.version, m_stored)) return older_than(m_stored);
        if (!is_newer(index.version, m_builtin)) return older_than(m_builtin + " of the firmware");
        if (updatable_copy_is_there() && !is_newer(index.version, m_recorded))
            return older_than(m_recorded);
        if (m_state.is_bad(index.sha256))
            return "version " + index.version + " is refused: its library failed to load here";
        const std::string mismatch = firmware_mismatch(index, m_firmware);
        return mismatch.empty() ? "" : "version " + index.version + " is refused: " + mismatch;
    }

    bool offer_newer(std::string& message) {
        const auto settings = load_settings(m_places.configuration, message);
        const auto index = settings ? fetch_index(*settings, message) : std::nullopt;
        if (!index) return false;
        message = objection(*index);
        if (!message.empty()) {
            remove_download(m_folder);
            return false;
        }
        const std::string version = "version " + index->version;
        // A pass that ended before the image was taken from here has left it.
        const bool is_there = is_downloaded(m_folder, *index);
        if (!is_there) {
            log_line("update: downloading " + version + ", newer than " + m_stored);
            if (!download_image(*settings, m_folder, *index, message)) return false;
        }
        remember_offer(index->version, 0);
        message =
            version + (is_there ? " is already at " : " is at ") + m_folder.path_of(IMAGE_NAME);
        return true;
    }

    void remember_offer(const std::string& version, int repairs) {
        m_state.offered_version = version;
        m_state.offered_firmware = m_firmware;
        m_state.repairs = repairs;
        std::string error;
        if (!write_state(m_folder, m_state, error)) log_line("update: " + error);
    }

    const Places& m_places;
    const DataFolder& m_folder;
    DeviceState m_state;
    std::string m_firmware;
    /** The versions of the stored image, of what was installed, and of the firmware's copy. */
    std::string m_stored;
    std::string m_recorded;
    std::string m_builtin;
};

}  // namespace

bool offer_image(const Places& places, const DataFolder& folder, const std::string& stored_version,
                 std::string& message) {
    folder.remove_parts(IMAGE_NAME);
    return Update(places, folder, stored_version).run(message);
}

}  // namespace ad_agent
