// What an operation came to, and the one line that is said about a failure.
#ifndef AD_MOUNTER_MESSAGES_H
#define AD_MOUNTER_MESSAGES_H

#include <sysexits.h>

namespace ad_mounter {

/**
 * Success, or a failure with its exit status (sysexits), the step that failed,
 * the path it was about and the reason in words. The texts are not owned: they
 * are literals, rows of the table, or kept by remember_path().
 */
class [[nodiscard]] Outcome {
public:
    Outcome() = default;

    /** A system call failed with `error` (an errno value); the status follows from it. */
    static Outcome failed(const char* step, const char* path, int error);

    /** The same under a status that the caller knows better. */
    static Outcome failed(int status, const char* step, const char* path, int error);

    /** Refused for a reason of our own. */
    static Outcome refused(int status, const char* step, const char* path, const char* reason);

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

/** The exit status for an errno value. */
int status_of_errno(int error);

/**
 * The path of `name` in the open directory `directory`, for a failure's line.
 * There is room for one: the first call decides and later ones give the same
 * text. Safe to call from several threads.
 */
const char* remember_path(int directory, const char* name);

/** Writes "ad-mounter: VERB: STEP: PATH: REASON" as one line to standard error. */
void report(const char* verb, const Outcome& outcome);

/** Writes one line on wrong usage to standard error; `word` (may be null) is what it is about. */
void report_usage(const char* reason, const char* word);

/** Writes `text` to standard output. False when that failed. */
bool print(const char* text);

}  // namespace ad_mounter

#endif
