#include "image_inspection.h"

#include "base/file_io.h"
#include "base/image_trailer.h"
#include "index_signature.h"
#include "regular_file.h"

#include <algorithm>
#include <array>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

/** Reads as much of an image's end as a trailer can take, and the image's size. */
Result<std::vector<unsigned char>> read_end(const DataDirectory& directory, const std::string& name,
                                            std::uint64_t& size) {
    const auto file = open_regular_file(directory.fd(), name, O_NOFOLLOW);
    if (!file) {
        return Failure(file.error());
    }
    struct stat status = {};
    if (fstat(file->get(), &status) != 0) {
        return errno_failure("failed to read " + directory.path_of(name));
    }
    size = static_cast<std::uint64_t>(status.st_size);
    std::vector<unsigned char> bytes(std::min<std::uint64_t>(size, base::max_trailer_size));
    const auto offset = static_cast<off_t>(size - bytes.size());
    if (base::pread_full(file->get(), bytes.data(), bytes.size(), offset) !=
        static_cast<ssize_t>(bytes.size())) {
        return errno_failure("failed to read " + directory.path_of(name));
    }
    return bytes;
}

/** A word of the trusted comment, and what the index states of it, empty for nothing. */
struct Word {
    const char* name;
    std::string signed_text;
    std::string index_text;
};

/** Returns why a trailer is not the one that the index describes, or not for the device. */
std::optional<std::string> mismatch(const ImageTrailer& trailer, const UpdateIndex& index,
                                    const DeviceIdentity& device) {
    const ImageTarget& target = trailer.target;
    // Of the index's version, which is newer than what is installed, the image is newer, too.
    const std::array<Word, 4> words = {
        {{"version", trailer.version, index.version},
         {"product", target.product, index.target.product},
         {"min-firmware", target.min_firmware, index.target.min_firmware},
         {"max-firmware", target.max_firmware, index.target.max_firmware}}};
    for (const Word& word : words) {
        if (!word.index_text.empty() && word.signed_text != word.index_text) {
            return std::string("signed ") + (word.signed_text.empty() ? "without " : "for ") +
                   word.name + (word.signed_text.empty() ? "" : " " + word.signed_text) +
                   ", the index says " + word.index_text;
        }
    }
    const auto other_product = product_mismatch(target.product, device);
    return other_product ? "signed " + *other_product : firmware_mismatch(target, device.firmware);
}

}  // namespace

Result<ImageTrailer> read_image_trailer(const DataDirectory& directory, const std::string& name) {
    std::uint64_t size = 0;
    const auto bytes = read_end(directory, name, size);
    if (!bytes) {
        return Failure(bytes.error());
    }
    const base::Trailer parsed = base::parse_trailer(bytes->data(), bytes->size(), size);
    ImageTrailer trailer;
    if (parsed.rejection) {
        trailer.rejection = parsed.rejection;
        return trailer;
    }
    const base::TrustedComment& comment = parsed.comment;
    trailer.version = comment.version;
    trailer.target = {std::string(comment.product), std::string(comment.min_firmware),
                      std::string(comment.max_firmware)};
    trailer.released = comment.released;
    trailer.key_id = key_id_text(parsed.signature.key_id);
    return trailer;
}

Result<std::optional<std::string>> inspect_image(const DataDirectory& directory,
                                                 const std::string& name, const UpdateIndex& index,
                                                 const DeviceIdentity& device) {
    const auto trailer = read_image_trailer(directory, name);
    if (!trailer) {
        return Failure(trailer.error());
    }
    return trailer->rejection ? trailer->rejection : mismatch(*trailer, index, device);
}

}  // namespace ad_agent
