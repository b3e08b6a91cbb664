/** A child process that is talked to in lines. */
#ifndef TEST_SUPPORT_LINE_PROCESS_H
#define TEST_SUPPORT_LINE_PROCESS_H

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test_support {

/**
 * Runs a program with its standard streams on pipes. Its output is kept until it
 * is asked for. Ends the program (SIGKILL) when it goes out of scope.
 */
class LineProcess {
public:
    using Milliseconds = std::chrono::milliseconds;

    explicit LineProcess(const std::vector<std::string>& command);
    ~LineProcess();
    LineProcess(const LineProcess&) = delete;
    LineProcess& operator=(const LineProcess&) = delete;

    void send(const std::string& line);

    /**
     * Takes the oldest line that holds the text, waiting for one, and forgets
     * the lines before it. Nothing when none comes in time.
     */
    std::optional<std::string> await(const std::string& text, Milliseconds limit);

    /** The same, but keeps the lines before it. */
    std::optional<std::string> pick(const std::string& text, Milliseconds limit);

    /** Takes every line that is there or comes within the time. */
    std::vector<std::string> collect(Milliseconds time);

    /** What the program has printed in all, for messages about failures. */
    const std::string& transcript() const { return transcript_; }

    pid_t pid() const { return pid_; }
    bool alive();

    /** Closes its standard input and waits: the exit status, or 128 and the signal's number. */
    int finish();

private:
    std::optional<std::string> take(const std::string& text, Milliseconds limit, bool forget);
    bool read_some(Milliseconds limit);

    pid_t pid_ = -1;
    int status_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string partial_;
    std::deque<std::string> lines_;
    std::string transcript_;
};

struct Outcome {
    /** The exit status, or 128 and the signal's number. */
    int status = 0;
    /** Standard output and standard error. */
    std::string output;
};

/** Runs a program to its end, without a shell. */
Outcome run(const std::vector<std::string>& command);

}  // namespace test_support

#endif
