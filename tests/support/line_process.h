/** A child process that is talked to in lines. */
#ifndef TEST_SUPPORT_LINE_PROCESS_H
#define TEST_SUPPORT_LINE_PROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test_support {

/**
 * Runs a program with its standard streams on pipes. Ends the program (SIGKILL)
 * when it goes out of scope.
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
     * Takes the oldest line that holds the text, waiting for one, and forgets the
     * lines before it: all of them, and gives nothing, when none comes in time.
     */
    std::optional<std::string> await(const std::string& text, Milliseconds limit);

    /** Sends a line and waits for one that holds the text; forgets none. */
    std::optional<std::string> ask(const std::string& line, const std::string& text,
                                   Milliseconds limit);

    /** What the program has printed in all, for messages about failures. */
    const std::string& transcript() const { return transcript_; }

    pid_t pid() const { return pid_; }
    bool alive();

    /** Closes its standard input and waits: the exit status, or 128 and the signal's number. */
    int finish();

private:
    std::optional<std::string> find(const std::string& text, size_t& from, Milliseconds limit);
    bool read_some(Milliseconds limit);

    pid_t pid_ = -1;
    int status_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string transcript_;
    size_t forgotten_ = 0;  // so much of it
};

struct Outcome {
    /** The exit status, or 128 and the signal's number. */
    int status = 0;
    /** Standard output and standard error. */
    std::string output;
};

/** Runs a shell command to its end. */
Outcome shell(const std::string& command);

}  // namespace test_support

#endif
