#include "image_download.h"

#include "ADDigest.h"
#include "base/errno_text.h"
#include "cached_document.h"
#include "etag.h"
#include "log.h"
#include "part_file.h"
#include "transfer.h"

#include <algorithm>
#include <cerrno>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr char images_path[] = "/images/";
constexpr int max_connections = 50;
constexpr std::uint64_t progress_steps = 10;

/** Compares a file's size and SHA-256 with the index. Returns the difference, or none. */
std::optional<std::string> mismatch(const DataDirectory& directory, const std::string& name,
                                    const UpdateIndex& index) {
    const std::uint64_t size = directory.size_of(name).value_or(0);
    if (size != index.size) {
        return "size is " + std::to_string(size) + " bytes, expected " + std::to_string(index.size);
    }
    const std::string path = directory.path_of(name);
    const std::string sha256 = ad_sha256_file(path.c_str());
    if (sha256.empty()) {
        return "failed to read " + path + ": " + base::errno_text(errno);
    }
    if (sha256 != index.sha256) {
        return "SHA-256 is " + sha256 + ", expected " + index.sha256;
    }
    return std::nullopt;
}

/** Logs a line for each tenth of the image that has arrived. */
class Progress {
public:
    Progress(std::uint64_t size, std::uint64_t done) : size_(size), step_(step_of(done)) {}

    void report(std::uint64_t done) {
        const std::uint64_t step = step_of(done);
        if (step <= step_) {
            return;
        }
        step_ = step;
        log_line("update: downloaded " + std::to_string(step * 100 / progress_steps) + " % of " +
                 std::to_string(size_) + " bytes");
    }

private:
    std::uint64_t step_of(std::uint64_t done) const { return done * progress_steps / size_; }

    std::uint64_t size_;
    std::uint64_t step_;
};

class Download {
public:
    Download(const Settings& settings, const DataDirectory& directory, const UpdateIndex& index,
             PartFile& part)
        : directory_(directory),
          index_(index),
          part_(part),
          request_(make_request(settings, images_path + index.file)),
          deadline_(g_get_monotonic_time() + gint64{settings.image_timeout} * G_USEC_PER_SEC) {
        request_.fd = part.fd();
        request_.max_bytes = index.size;
        request_.expected_size = index.size;
        request_.on_start = [this](const std::string& etag) { store(etag); };
    }

    /**
     * Completes the part file. Starts over once if what was resumed turns out corrupt.
     * Returns why what the server has is not the image, or none.
     */
    Result<std::optional<std::string>> run() {
        const auto prepared = prepare();
        if (!prepared) {
            return Failure(prepared.error());
        }
        const bool is_resumed = part_.size() > 0;
        auto fetched = fetch_rest();
        auto reason = fetched ? mismatch(directory_, part_.name(), index_) : std::nullopt;
        if (reason && is_resumed) {
            log_line("update: the partial download is corrupt: " + *reason + "; starting over");
            fetched = start_over();
            fetched = fetched ? fetch_rest() : fetched;
            reason = fetched ? mismatch(directory_, part_.name(), index_) : std::nullopt;
        }
        if (!fetched) {
            return Failure(fetched.error());
        }
        if (reason) {
            start_over();
        }
        return reason;
    }

private:
    /** Decides where to start. */
    Result<> prepare() {
        etag_ = read_etag(directory_, image_name, index_.sha256);
        if (!is_strong_etag(etag_) || part_.size() > index_.size) {
            auto started = start_over();
            if (!started) {
                return started;
            }
        }
        if (part_.size() > 0) {
            log_line("update: resuming after " + std::to_string(part_.size()) + " bytes");
        }
        return directory_.require_space(index_.size - part_.size());
    }

    /** Discards what has arrived. */
    Result<> start_over() {
        remove_etag(directory_, image_name);
        etag_.clear();
        return part_.clear();
    }

    /** Transfers the missing bytes, over as many connections as it takes. */
    Result<> fetch_rest() {
        for (int connections = 1; part_.size() < index_.size; ++connections) {
            const std::uint64_t before = part_.size();
            const auto response = connect(before);
            if (response) {
                return {};
            }
            if (response.error().fault == TransferFault::rejected) {
                start_over();
            }
            const bool may_retry = response.error().fault == TransferFault::connection_lost &&
                                   part_.size() > before && connections < max_connections &&
                                   seconds_left() > 0;
            if (!may_retry) {
                return failure(response.error().message);
            }
            etag_ = read_etag(directory_, image_name, index_.sha256);
            if (!is_strong_etag(etag_)) {
                auto started = start_over();
                if (!started) {
                    return started;
                }
            }
        }
        return {};
    }

    TransferResult connect(std::uint64_t offset) {
        Progress progress(index_.size, offset);
        request_.offset = offset;
        request_.etag = offset > 0 ? etag_ : "";
        // libcurl takes 0 for no limit.
        request_.total_timeout = static_cast<int>(std::max<gint64>(seconds_left(), 1));
        request_.on_progress = [&](std::uint64_t done) { progress.report(done); };
        return transfer(request_);
    }

    /** Runs in the transfer's process. On failure a later download starts over. */
    void store(const std::string& etag) const {
        const auto stored = store_etag(directory_, image_name, index_.sha256, etag);
        if (!stored) {
            log_line("update: " + stored.error().message);
        }
    }

    gint64 seconds_left() const {
        return (deadline_ - g_get_monotonic_time() + G_USEC_PER_SEC / 2) / G_USEC_PER_SEC;
    }

    const DataDirectory& directory_;
    const UpdateIndex& index_;
    PartFile& part_;
    TransferRequest request_;
    std::string etag_;
    gint64 deadline_;
};

}  // namespace

bool is_downloaded(const DataDirectory& directory, const UpdateIndex& index) {
    return !mismatch(directory, image_name, index);
}

Result<std::optional<std::string>> download_image(const Settings& settings,
                                                  const DataDirectory& directory,
                                                  const UpdateIndex& index) {
    auto part = PartFile::resume(directory, image_name);
    if (!part) {
        return Failure(part.error());
    }
    auto reason = Download(settings, directory, index, *part).run();
    if (reason && !*reason) {
        remove_etag(directory, image_name);
        const auto committed = part->commit();
        return committed ? reason : Failure(committed.error());
    }
    if (part->size() > 0) {
        part->keep();
    }
    return reason;
}

void remove_download(const DataDirectory& directory) {
    directory.remove(image_name);
    PartFile::remove(directory, image_name);
    remove_etag(directory, image_name);
}

}  // namespace ad_agent
