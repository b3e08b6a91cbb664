#include "version_floor.h"

#include "atomic_file.h"
#include "base/decimal_version.h"
#include "base/file_io.h"
#include "operations.h"
#include "path.h"
#include "signature.h"
#include "trusted_path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "read version floor in";

// Copies the version in the verified comment of the stored image.
Outcome read_stored_version(const Target& stored, const Keys& keys, char (&version)[version_size]) {
    const base::UniqueFd fd(open_entry(stored.directory.get(), stored.name,
                                       O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0) {
        return Outcome::failed("open", stored.path, errno);
    }
    const char* reason = untrusted_reason(status);
    if (reason != nullptr) {
        return Outcome::refused(EX_DATAERR, "use", stored.path, reason);
    }
    ImageVerifier image(fd.get(), stored.path);
    TRY(image.verify_comment(keys, max_image_size));
    copy_version(image.comment().version, version);
    return {};
}

}  // namespace

Outcome VersionFloor::read_file(const Target& stored) {
    target_.path = version_floor;
    target_.name = strrchr(version_floor, '/') + 1;
    target_.directory.reset(fcntl(stored.directory.get(), F_DUPFD_CLOEXEC, 0));
    if (!target_.directory) {
        return Outcome::failed("open directory of", version_floor, errno);
    }
    char text[version_size + 1];
    const TrustedText read =
        read_trusted_file(target_.directory.get(), target_.name, text, sizeof text);
    if (read.rejection != nullptr) {
        return Outcome::refused(EX_DATAERR, step, version_floor, read.rejection);
    }
    if (read.error != 0) {
        return read.error == ENOENT ? Outcome() : Outcome::failed(step, version_floor, read.error);
    }
    // With its newline, so that a truncated version is not taken for a lower one.
    const bool complete = read.length > 0 && text[read.length - 1] == '\n';
    const std::string_view version(text, complete ? read.length - 1 : 0);
    return base::is_decimal_version(version) && copy_version(version, recorded_)
               ? Outcome()
               : Outcome::refused(EX_DATAERR, step, version_floor, "not a version");
}

Outcome VersionFloor::read(const Target& stored, const Keys& keys) {
    TRY(read_file(stored));
    const Outcome image = read_stored_version(stored, keys, stored_);
    switch (image.status()) {
        case EX_NOINPUT:
        case EX_DATAERR:
            return {};
        case EX_IOERR:
            // A damaged medium must not keep an image in place for ever.
            return *recorded_ != '\0' ? Outcome() : image;
        default:
            return image;
    }
}

Outcome VersionFloor::check(std::string_view version, const char* path,
                            const char* consequence) const {
    const char* highest = recorded_;
    if (*highest == '\0' || (*stored_ != '\0' && base::compare_versions(stored_, highest) > 0)) {
        highest = stored_;
    }
    if (*highest == '\0' || base::compare_versions(version, highest) >= 0) {
        return {};
    }
    static char reason[160];
    snprintf(reason, sizeof reason,
             "version %.*s is older than %s, the highest version ever stored here; %s",
             static_cast<int>(version.size()), version.data(), highest, consequence);
    return Outcome::refused(EX_DATAERR, "verify", path, reason);
}

Outcome VersionFloor::raise(std::string_view version) {
    if (version.empty() ||
        (*recorded_ != '\0' && base::compare_versions(version, recorded_) <= 0)) {
        return {};
    }
    char text[version_size + 1];
    const int length =
        snprintf(text, sizeof text, "%.*s\n", static_cast<int>(version.size()), version.data());
    AtomicFile file(target_);
    TRY(file.remove_leftover());
    TRY(file.create(static_cast<uint64_t>(length)));
    if (!base::write_full(file.fd(), text, static_cast<size_t>(length))) {
        return Outcome::failed("write", version_floor, errno);
    }
    return file.commit({0644, 0, 0});
}

}  // namespace ad_mounter
