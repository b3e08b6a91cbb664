/**
 * How a start of the daemon can fail, and what each failure counts for.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ad_guard {

enum class FailureKind { crashed, exited, hung, interrupted };

/**
 * What a failure counts for, in halves. An interrupted start counts half: whether the library
 * made the device reboot or someone pulled the plug cannot be told apart.
 */
int halves(FailureKind kind);

/** Returns the word that stands for it in the record. */
const char* name_of(FailureKind kind);
std::optional<FailureKind> kind_of(const std::string& name);

/** Returns why an image is bad after it, as the agent library reports it. */
const char* reason_of(FailureKind kind);

struct Failure {
    FailureKind kind;
    /** In seconds since 1970. */
    std::int64_t time;
};

/** How a run of the daemon that nobody asked to stop ended. */
struct Ending {
    FailureKind kind;
    /** In words, such as "killed by signal SEGV". */
    std::string text;
};

/**
 * Reads what the service manager reports about the daemon to ExecStopPost=, see "Environment
 * Variables Set or Propagated by the Service Manager" in systemd.exec(5).
 * @return none if the daemon was never started
 */
std::optional<Ending> read_ending(const std::string& service_result, const std::string& exit_code,
                                  const std::string& exit_status);

}  // namespace ad_guard
