/**
 * Keeps an older image from replacing a newer one.
 */
#pragma once

#include "keys.h"
#include "outcome.h"
#include "target.h"
#include "version_text.h"

#include <string_view>

namespace ad_mounter {

/**
 * The lowest version that may be stored: the highest one ever stored here. It is kept in a file
 * beside the stored image, which a power cut may leave behind the image, so that the stored
 * image's version counts as well.
 */
class VersionFloor {
public:
    /**
     * Reads the file, and the version in the verified comment of the stored image `stored`. A
     * missing file, and an image that is missing or not verified, mean none. Refuses a file that
     * is malformed, or that users other than root could change: EX_DATAERR.
     */
    Outcome read(const Target& stored, const Keys& keys);

    /** Refuses a lower version. `path` and `consequence` are for error messages. */
    Outcome check(std::string_view version, const char* path, const char* consequence) const;

    /** Records `version` durably unless the file has it, or a higher one, already. */
    Outcome raise(std::string_view version);

    /** Records the version of the stored image. */
    Outcome raise_to_stored() { return raise(stored_); }

private:
    Outcome read_file(const Target& stored);

    Target target_;
    char recorded_[version_size] = "";
    char stored_[version_size] = "";
};

}  // namespace ad_mounter
