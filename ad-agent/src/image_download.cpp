#include "image_download.h"

#include "ADDigest.h"
#include "kept_document.h"
#include "log.h"
#include "validator.h"

#include <cerrno>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr char IMAGES_PATH[] = "/images/";
constexpr int MAX_CONNECTIONS = 50;
constexpr std::uint64_t PROGRESS_STEPS = 10;

/** Holds a file against what the index says of the image. @return the difference, or nothing */
std::string difference(const DataFolder& folder, const std::string& name,
                       const UpdateIndex& index) {
    const std::uint64_t size = folder.size_of(name).value_or(0);
    if (size != index.size) {
        return "it has " + std::to_string(size) + " bytes, the index says " +
               std::to_string(index.size);
    }
    const std::string sha256 = ad_sha256_file(folder.path_of(name).c_str());
    if (sha256.empty()) return std::string("cannot read it back: ") + g_strerror(errno);
    if (sha256 != index.sha256) return "its SHA-256 is " + sha256 + ", not the index's";
    return "";
}

/** Says a line at each tenth of the image that has come. */
class Progress {
public:
    Progress(std::uint64_t size, std::uint64_t done) : m_size(size), m_step(step_of(done)) {}

    void tell(std::uint64_t done) {
        const std::uint64_t step = step_of(done);
        if (step <= m_step) return;
        m_step = step;
        log_line("update: " + std::to_string(step * 100 / PROGRESS_STEPS) + " % of " +
                 std::to_string(m_size) + " bytes");
    }

private:
    std::uint64_t step_of(std::uint64_t done) const { return done * PROGRESS_STEPS / m_size; }

    std::uint64_t m_size;
    std::uint64_t m_step;
};

class Download {
public:
    Download(const Settings& settings, const DataFolder& folder, const UpdateIndex& index,
             PartFile& part)
        : m_folder(folder),
          m_index(index),
          m_part(part),
          m_request(request_for(settings, IMAGES_PATH + index.file)),
          m_deadline(g_get_monotonic_time() + gint64{settings.image_timeout} * G_USEC_PER_SEC) {
        m_request.fd = part.fd();
        m_request.max_bytes = index.size;
        m_request.size = index.size;
        m_request.at_start = [this](const std::string& validator) { keep(validator); };
    }

    /** Forgets what was there of another file, or of this one without a validator. */
    bool prepare(std::string& error) {
        m_validator = read_validator(m_folder, IMAGE_NAME, m_index.sha256);
        const bool resumable = is_strong(m_validator) && m_part.size() <= m_index.size;
        if (!resumable && !start_anew(error)) return false;
        if (m_part.size() > 0)
            log_line("update: going on after " + std::to_string(m_part.size()) + " bytes");
        const std::uint64_t missing = m_index.size - m_part.size();
        const std::uint64_t room = m_folder.free_bytes();
        if (missing <= room) return true;
        error = "no room for the image: " + std::to_string(missing) + " bytes are needed and " +
                std::to_string(room) + " free";
        return false;
    }

    bool start_anew(std::string& error) {
        remove_validator(m_folder, IMAGE_NAME);
        m_validator.clear();
        return m_part.clear(error);
    }

    /** Fetches what is missing. @return whether all is there, with the reason in error */
    bool run(std::string& error) {
        for (int connections = 0; m_part.size() < m_index.size; ++connections) {
            const std::uint64_t before = m_part.size();
            const TransferResult result = connect(before);
            if (result.end == TransferEnd::COMPLETE) return true;
            error = result.error;
            std::string ignored;
            if (result.end == TransferEnd::REFUSED) start_anew(ignored);
            const bool worth_it = result.end == TransferEnd::BROKEN && m_part.size() > before &&
                                  connections < MAX_CONNECTIONS && seconds_left() > 0;
            if (!worth_it) return false;
            m_validator = read_validator(m_folder, IMAGE_NAME, m_index.sha256);
            if (!is_strong(m_validator) && !start_anew(error)) return false;
        }
        return true;
    }

    const std::string& url() const { return m_request.url; }

private:
    TransferResult connect(std::uint64_t offset) {
        Progress progress(m_index.size, offset);
        m_request.offset = offset;
        m_request.validator = offset > 0 ? m_validator : "";
        m_request.total_timeout = static_cast<int>(seconds_left());
        m_request.at_progress = [&](std::uint64_t done) { progress.tell(done); };
        return transfer(m_request);
    }

    /** Runs in the transfer's process; without it a later download starts anew. */
    void keep(const std::string& validator) const {
        std::string error;
        if (!keep_validator(m_folder, IMAGE_NAME, m_index.sha256, validator, error))
            log_line("update: " + error);
    }

    gint64 seconds_left() const {
        return (m_deadline - g_get_monotonic_time() + G_USEC_PER_SEC / 2) / G_USEC_PER_SEC;
    }

    const DataFolder& m_folder;
    const UpdateIndex& m_index;
    PartFile& m_part;
    TransferRequest m_request;
    std::string m_validator;
    gint64 m_deadline;
};

/** Runs a download up to a part file that is the index's. What was kept may be damaged. */
bool complete(Download& download, const DataFolder& folder, const UpdateIndex& index,
              PartFile& part, std::string& error) {
    if (!download.prepare(error)) return false;
    const bool resumed = part.size() > 0;
    if (!download.run(error)) return false;
    std::string wrong = difference(folder, part.name(), index);
    if (!wrong.empty() && resumed) {
        log_line("update: what was kept is not the image: " + wrong + ": starting anew");
        if (!download.start_anew(error) || !download.run(error)) return false;
        wrong = difference(folder, part.name(), index);
    }
    if (wrong.empty()) return true;
    error = download.url() + ": refused: " + wrong;
    std::string ignored;
    download.start_anew(ignored);
    return false;
}

}  // namespace

bool is_downloaded(const DataFolder& folder, const UpdateIndex& index) {
    return difference(folder, IMAGE_NAME, index).empty();
}

bool download_image(const Settings& settings, const DataFolder& folder, const UpdateIndex& index,
                    std::string& error) {
    auto part = PartFile::resume(folder, IMAGE_NAME, error);
    if (!part) return false;
    Download download(settings, folder, index, *part);
    if (complete(download, folder, index, *part, error)) {
        remove_validator(folder, IMAGE_NAME);
        return part->commit(error);
    }
    if (part->size() == 0) remove_validator(folder, IMAGE_NAME);
    if (part->size() > 0) part->keep();
    return false;
}

void remove_download(const DataFolder& folder) {
    folder.remove(IMAGE_NAME);
    PartFile::remove_leftover(folder, IMAGE_NAME);
    remove_validator(folder, IMAGE_NAME);
}

}  // namespace ad_agent
