/**
 * The platform log as a file.
 */
#pragma once

#include <atomic>
#include <cstdarg>

namespace simulated_platform {

/**
 * Appends lines to a file, each with one write(2), so that lines of several
 * processes, threads and signal handlers never mix.
 *
 * The file is created when it is missing and its directory exists, also when it
 * was removed or renamed since the last line. It stays open in between: closing
 * it after each line would wake up whoever watches the directory.
 */
class LogFile {
public:
    /** @param path  borrowed for the object's life */
    explicit constexpr LogFile(const char* path) : path_(path) {}
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /**
     * Writes "TIME PRIORITY TAG MESSAGE" and a newline.
     *
     * The time is UTC, ISO 8601 with milliseconds. Newlines at the end of the
     * message are dropped, others become blanks; a line of more than 4096 bytes
     * is truncated and ends in "...".
     *
     * Takes no lock, allocates nothing and preserves errno: apart from
     * vsnprintf(3), which in glibc is reentrant for conversions that need no
     * allocation (not floating-point, wide or very wide ones), it calls only
     * what signal-safety(7) lists, or plain system calls.
     *
     * @return the number of bytes written, or a negative errno(3) value
     */
    int vprint(int priority, const char* tag, const char* format, std::va_list arguments)
        __attribute__((format(printf, 4, 0)));

    /** The same with the arguments themselves. */
    int print(int priority, const char* tag, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    /** Makes both functions return only this, without writing, until it is 0 again. */
    void force_result(int result) { forced_result_ = result; }

private:
    int ready_descriptor();
    bool is_current(int descriptor) const;

    const char* path_;
    std::atomic<int> descriptor_{-1};
    std::atomic<int> forced_result_{0};
};

/** The process's platform log. Usable during static initialisation and at exit. */
LogFile& process_log();

}  // namespace simulated_platform
