#include "log.h"

#include <glib.h>
#include <unistd.h>

namespace ad_agent {

void log_line(const std::string& message) {
    std::string line = "ad-agent: " + message;
    for (char& character : line) {
        if (g_ascii_iscntrl(character)) {
            character = '?';
        }
    }
    line += '\n';
    // There is nowhere to report a failure.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace ad_agent
