#include "timeline.h"

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/little_endian.h"
#include "base/unique_fd.h"
#include "log.h"
#include "utc_time.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <glib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

namespace ad_ctl {
namespace {

/** What a source writes before its text on standard error, and its name in the timeline. */
struct Source {
    std::string_view prefix;
    const char* name;
};
constexpr std::array<Source, 3> sources = {
    {{"ad-agent: ", "ad-agent"}, {"ad-mounter: ", "ad-mounter"}, {"adagentd-guard: ", "guard"}}};

/**
 * Returns the text of a line of the daemon, or the line if it is none. Standard output has
 * "COLOUR [(Thread Id:1): Start(2)] TEXT", the platform's log "... [Thread Id:[1]] COLOUR TEXT".
 */
std::string daemon_text(const std::string& message) {
    for (const auto& [marker, end] :
         {std::pair("[(Thread Id:", ")] "), std::pair("[Thread Id:[", "]] ")}) {
        const std::size_t start = message.find(marker);
        const std::size_t found = start == std::string::npos ? start : message.find(end, start);
        if (found != std::string::npos) {
            return message.substr(found + std::string_view(end).size());
        }
    }
    return message;
}

/** Reads the value of a field that is not plain text: its size, the bytes and a newline. */
bool read_binary(FILE* stream, std::string& value) {
    constexpr std::uint64_t max_size = 1024ULL * 1024;
    std::array<unsigned char, 8> bytes = {};
    if (std::fread(bytes.data(), 1, bytes.size(), stream) != bytes.size()) {
        return false;
    }
    const std::uint64_t size = base::little_endian(bytes.data(), bytes.size());
    if (size > max_size) {
        return false;
    }
    value.resize(size);
    return std::fread(value.data(), 1, size, stream) == size && std::getc(stream) == '\n';
}

/** Reads entries of the journal's export format, see systemd's journal export formats. */
class EntryReader {
public:
    explicit EntryReader(FILE* stream) : stream_(stream) {}
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;
    ~EntryReader() { free(line_); }

    bool next(LogEntry& entry) {
        entry = {};
        bool has_fields = false;
        for (std::string name, value; read_field(name, value);) {
            if (name.empty() && has_fields) {
                return true;
            }
            has_fields = !name.empty();
            take(name, value, entry);
        }
        return has_fields;
    }

private:
    /** Reads one field. An empty line, which ends an entry, has an empty name. */
    bool read_field(std::string& name, std::string& value) {
        const ssize_t length = getline(&line_, &capacity_, stream_);
        if (length <= 0) {
            return false;
        }
        const std::string line(line_,
                               static_cast<std::size_t>(length) - (line_[length - 1] == '\n'));
        const std::size_t equals = line.find('=');
        name = line.substr(0, equals);
        if (equals == std::string::npos) {
            value.clear();
            return name.empty() || read_binary(stream_, value);
        }
        value = line.substr(equals + 1);
        return true;
    }

    static void take(const std::string& name, const std::string& value, LogEntry& entry) {
        constexpr std::int64_t microseconds = 1000000;
        if (name == "__REALTIME_TIMESTAMP") {
            entry.time = g_ascii_strtoll(value.c_str(), nullptr, 10) / microseconds;
        } else if (name == "MESSAGE") {
            entry.message = value;
        } else if (name == "SYSLOG_IDENTIFIER") {
            entry.identifier = value;
        }
    }

    FILE* stream_;
    char* line_ = nullptr;
    std::size_t capacity_ = 0;
};

/** Starts journalctl. Returns the end of a pipe that it writes to, or none with errno set. */
base::UniqueFd start_journalctl(const std::vector<std::string>& options, pid_t& child) {
    std::vector<std::string> words = {"journalctl",
                                      "--output=export",
                                      "--no-pager",
                                      "--quiet",
                                      "--output-fields=MESSAGE,SYSLOG_IDENTIFIER",
                                      "--unit=adagentd.service",
                                      "--unit=adagentd-confirm.service"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return base::UniqueFd();
    }
    base::UniqueFd output(ends[0]);
    const base::UniqueFd input(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
    const int error =
        posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        output.reset();
        errno = error;
    }
    return output;
}

}  // namespace

std::string timeline_line(const LogEntry& entry) {
    constexpr std::size_t source_width = 11;
    std::string source = entry.identifier;
    std::string text = entry.message;
    if (source == "AD_DAEMON" || source == "adagentd") {
        source = "adagentd";
        text = daemon_text(text);
    }
    for (const Source& known : sources) {
        if (text.compare(0, known.prefix.size(), known.prefix) == 0) {
            source = known.name;
            text = text.substr(known.prefix.size());
        }
    }
    // The daemon ends some of its lines itself.
    text.erase(text.find_last_not_of(" \n") + 1);
    if (text.empty()) {
        return "";
    }
    source.resize(std::max(source.size(), source_width), ' ');
    return ad_agent::printable(ad_agent::format_utc(entry.time) + " " + source + " " + text,
                               ad_agent::max_log_line);
}

int print_timeline(const std::vector<std::string>& options) {
    pid_t child = 0;
    base::UniqueFd output = start_journalctl(options, child);
    if (!output) {
        std::fprintf(stderr, "adagentctl: log: failed to run journalctl: %s\n",
                     base::errno_text(errno));
        return EX_UNAVAILABLE;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(fdopen(output.release(), "r"), std::fclose);
    EntryReader reader(stream.get());
    for (LogEntry entry; reader.next(entry);) {
        const std::string line = timeline_line(entry);
        if (!line.empty() && (std::puts(line.c_str()) < 0 || std::fflush(stdout) != 0)) {
            return EX_IOERR;
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return 0;
    }
    std::fputs("adagentctl: log: journalctl failed\n", stderr);
    return EX_UNAVAILABLE;
}

}  // namespace ad_ctl
