#include "image_update.h"

#include "ADDigest.h"
#include "fetch.h"
#include "log.h"
#include "transfer.h"
#include "update_index.h"
#include "version.h"

#include <cerrno>

#include <glib.h>

namespace ad_agent {
namespace {

constexpr char INDEX_PATH[] = "/update.ini";
constexpr char IMAGES_PATH[] = "/images/";
constexpr std::uint64_t MAX_INDEX_SIZE = 64ULL * 1024;

std::optional<UpdateIndex> fetch_index(const Settings& settings, std::string& error) {
    const auto text = fetch_text(settings, INDEX_PATH, MAX_INDEX_SIZE, error);
    if (!text) return std::nullopt;
    auto index = parse_update_index(*text, error);
    if (!index) error.insert(0, settings.server_url + INDEX_PATH + ": ");
    return index;
}

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

bool download(const Settings& settings, const DataFolder& folder, const UpdateIndex& index,
              std::string& error) {
    auto part = PartFile::create(folder, IMAGE_NAME, error);
    if (!part) return false;

    TransferRequest request;
    request.url = settings.server_url + IMAGES_PATH + index.file;
    request.fd = part->fd();
    request.max_bytes = index.size;
    request.connect_timeout = settings.connect_timeout;
    request.stall_timeout = settings.stall_timeout;
    request.total_timeout = settings.image_timeout;
    if (!transfer(request, error)) return false;

    const std::string wrong = difference(folder, part->name(), index);
    if (!wrong.empty()) {
        error = request.url + ": refused: " + wrong;
        return false;
    }
    return part->commit(error);
}

}  // namespace

bool download_newer_image(const Settings& settings, const DataFolder& folder,
                          const std::string& installed_version, std::string& message) {
    // What a process that was killed in a download has left.
    PartFile::remove_leftover(folder, IMAGE_NAME);

    const auto index = fetch_index(settings, message);
    if (!index) return false;
    if (!is_newer(index->version, installed_version)) {
        message =
            "the server's version " + index->version + " is not newer than " + installed_version;
        return false;
    }

    const std::string version = "version " + index->version;
    // A pass that ended before the image was taken from here has left it.
    if (difference(folder, IMAGE_NAME, *index).empty()) {
        message = version + " is already at " + folder.path_of(IMAGE_NAME);
        return true;
    }
    log_line("update: downloading " + version + ", newer than " + installed_version);
    if (!download(settings, folder, *index, message)) return false;
    message = version + " is at " + folder.path_of(IMAGE_NAME);
    return true;
}

}  // namespace ad_agent
