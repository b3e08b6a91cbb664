#include "log_file.h"

#include "base/unique_fd.h"
#include "paths.h"
#include "platform_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace simulated_platform {

namespace {

constexpr std::size_t line_limit = 4096;
constexpr long seconds_per_day = 86400;

class ErrnoGuard {
public:
    ~ErrnoGuard() { errno = value_; }

private:
    int value_ = errno;
};

struct Date {
    long year;
    int month;
    int day;
};

/**
 * The Gregorian date, computed in years that begin in March. gmtime_r(3) takes a
 * lock, which the code that a signal handler interrupts may hold.
 */
Date date_of(long days_since_1970) {
    constexpr long days_per_era = 146097;
    const long days = days_since_1970 + 719468;
    const long era = days / days_per_era;
    const long day_of_era = days % days_per_era;
    const long year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const long month_from_march = (5 * day_of_year + 2) / 153;
    const int day = static_cast<int>(day_of_year - (153 * month_from_march + 2) / 5 + 1);
    const int month =
        static_cast<int>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
    return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

/** Returns the prefix's size, less than the line's. */
std::size_t put_prefix(std::array<char, line_limit>& line, int priority, const char* tag) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const long second = now.tv_sec % seconds_per_day;
    const Date date = date_of(now.tv_sec / seconds_per_day);
    std::array<char, 16> number{};
    const char* name = number.data();
    if (priority == PLATFORM_LOG_NORMAL) {
        name = "NORMAL";
    } else if (priority == PLATFORM_LOG_ERROR) {
        name = "ERROR";
    } else {
        std::snprintf(number.data(), number.size(), "%d", priority);
    }
    const int size =
        std::snprintf(line.data(), line.size(), "%04ld-%02d-%02dT%02ld:%02ld:%02ld.%03ldZ %s %s ",
                      date.year, date.month, date.day, second / 3600, second / 60 % 60, second % 60,
                      now.tv_nsec / 1000000, name, tag != nullptr ? tag : "-");
    return std::min(static_cast<std::size_t>(std::max(size, 0)), line.size() - 1);
}

/** Turns the text into one line. Returns its size with the newline. */
std::size_t finish_line(std::array<char, line_limit>& line, std::size_t size, bool is_truncated) {
    if (is_truncated) {
        std::memcpy(&line[size - 3], "...", 3);
    }
    while (size > 0 && line[size - 1] == '\n') {
        --size;
    }
    std::replace(line.begin(), line.begin() + size, '\n', ' ');
    line[size] = '\n';
    return size + 1;
}

}  // namespace

LogFile::~LogFile() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

int LogFile::vprint(int priority, const char* tag, const char* format, std::va_list arguments) {
    if (const int result = forced_result_) {
        return result;
    }
    const ErrnoGuard errno_guard;
    std::array<char, line_limit> line;
    const std::size_t start = put_prefix(line, priority, tag);
    // The analyzer does not see the va_start of a caller.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int wanted = std::vsnprintf(&line[start], line.size() - start, format, arguments);
    if (wanted < 0) {
        return -errno;
    }
    const std::size_t end = start + static_cast<std::size_t>(wanted);
    const std::size_t size =
        finish_line(line, std::min(end, line.size() - 1), end > line.size() - 1);

    const int descriptor = ready_descriptor();
    if (descriptor < 0) {
        return descriptor;
    }
    const ssize_t written = write(descriptor, line.data(), size);
    return written < 0 ? -errno : static_cast<int>(written);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): has printf's form, for callers without a va_list.
int LogFile::print(int priority, const char* tag, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int result = vprint(priority, tag, format, arguments);
    va_end(arguments);
    return result;
}

/** Whether the descriptor is the named file's: another process may have removed or renamed it. */
bool LogFile::is_current(int descriptor) const {
    struct stat open_file {};
    struct stat named_file {};
    return fstat(descriptor, &open_file) == 0 && stat(path_, &named_file) == 0 &&
           open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
}

int LogFile::ready_descriptor() {
    int current = descriptor_;
    if (current >= 0 && is_current(current)) {
        return current;
    }
    base::UniqueFd fresh(open(path_, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!fresh) {
        return -errno;
    }
    if (current < 0 && descriptor_.compare_exchange_strong(current, fresh.get())) {
        return fresh.release();
    }
    // The descriptor's number never changes, so that a write that another thread is about to do
    // cannot land in a file that is not the log.
    return dup3(fresh.get(), current, O_CLOEXEC) >= 0 ? current : -errno;
}

namespace {

/** Never destroys the log: other code may write to it later at exit. */
union ImmortalLog {
    LogFile log;
    constexpr ImmortalLog() : log(log_path) {}
    // NOLINTNEXTLINE(modernize-use-equals-default): a union's would be deleted.
    ~ImmortalLog() {}
};

ImmortalLog immortal_log;

}  // namespace

LogFile& process_log() { return immortal_log.log; }

}  // namespace simulated_platform
