/**
 * The result of an operation, with all that its error message needs.
 */
#pragma once

#include <sysexits.h>

namespace ad_mounter {

/**
 * Success, or a failure: an exit status of sysexits.h(3head), the step that failed as an
 * infinitive ("open"), the path it failed on, and the reason. The texts are not owned: they
 * are literals, paths of the operations table, or static.
 */
class [[nodiscard]] Outcome {
public:
    Outcome() = default;

    /** A system call failed with `error`, an errno value, which also determines the status. */
    static Outcome failed(const char* step, const char* path, int error);

    /** As above, with a status that the errno value does not imply. */
    static Outcome failed(int status, const char* step, const char* path, int error);

    /** Refused for a reason that no errno value describes. */
    static Outcome refused(int status, const char* step, const char* path, const char* reason);

    /** As above, on the entry `name` of the open directory `directory`. Thread-safe. */
    static Outcome entry_failed(const char* step, int directory, const char* name, int error);
    static Outcome entry_refused(int status, const char* step, int directory, const char* name,
                                 const char* reason);

    bool ok() const { return status_ == EX_OK; }
    int status() const { return status_; }
    const char* step() const { return step_; }
    const char* path() const { return path_; }
    const char* reason() const { return reason_; }

private:
    int status_ = EX_OK;
    const char* step_ = "";
    const char* path_ = "";
    const char* reason_ = "";
};

}  // namespace ad_mounter

/** Returns from the calling function unless the Outcome `expression` is a success. */
#define TRY(expression)                                          \
    do {                                                         \
        const ::ad_mounter::Outcome try_outcome_ = (expression); \
        if (!try_outcome_.ok()) {                                \
            return try_outcome_;                                 \
        }                                                        \
    } while (false)
