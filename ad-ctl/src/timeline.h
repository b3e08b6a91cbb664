/**
 * What the daemon, the agent library, the tool, the guard and the service manager logged.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ad_ctl {

/** One entry of the journal. */
struct LogEntry {
    /** In seconds since 1970. */
    std::int64_t time = 0;
    /** Who logged it, as the journal has it. */
    std::string identifier;
    std::string message;
};

/** Returns an entry as "TIME SOURCE TEXT", without what its source puts around the text. */
std::string timeline_line(const LogEntry& entry);

/**
 * Writes the timeline to standard output.
 * @param options  further options of journalctl(1)
 * @return 0, or EX_UNAVAILABLE of sysexits.h if there is no journal; then the reason is on standard
 *         error
 */
int print_timeline(const std::vector<std::string>& options);

}  // namespace ad_ctl
