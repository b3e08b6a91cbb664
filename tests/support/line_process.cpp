#include "line_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support {

namespace {

using Clock = std::chrono::steady_clock;

LineProcess::Milliseconds left(Clock::time_point end) {
    return std::max(LineProcess::Milliseconds(0),
                    std::chrono::ceil<LineProcess::Milliseconds>(end - Clock::now()));
}

}  // namespace

LineProcess::LineProcess(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);

    int to_child[2];
    int from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0) abort();
    pid_ = fork();
    if (pid_ == 0) {
        dup2(to_child[0], STDIN_FILENO);
        dup2(from_child[1], STDOUT_FILENO);
        dup2(from_child[1], STDERR_FILENO);
        signal(SIGPIPE, SIG_DFL);
        execvp(arguments[0], arguments.data());
        perror(arguments[0]);
        _exit(127);
    }
    close(to_child[0]);
    close(from_child[1]);
    input_ = to_child[1];
    output_ = from_child[0];
    signal(SIGPIPE, SIG_IGN);
}

LineProcess::~LineProcess() {
    if (pid_ > 0 && status_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }
    if (input_ >= 0) close(input_);
    close(output_);
}

void LineProcess::send(const std::string& line) {
    const std::string text = line + "\n";
    if (write(input_, text.data(), text.size()) < 0) transcript_ += "(cannot send " + line + ")\n";
}

bool LineProcess::read_some(Milliseconds limit) {
    pollfd ready = {output_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(limit.count())) <= 0) return false;
    char chunk[4096];
    const ssize_t size = read(output_, chunk, sizeof chunk);
    if (size <= 0) return false;
    transcript_.append(chunk, static_cast<size_t>(size));
    return true;
}

std::optional<std::string> LineProcess::await(const std::string& text, Milliseconds limit) {
    return find(text, forgotten_, limit);
}

std::optional<std::string> LineProcess::ask(const std::string& line, const std::string& text,
                                            Milliseconds limit) {
    size_t from = transcript_.rfind('\n') + 1;
    send(line);
    return find(text, from, limit);
}

std::optional<std::string> LineProcess::find(const std::string& text, size_t& from,
                                             Milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        for (size_t next; (next = transcript_.find('\n', from) + 1) != 0;) {
            const std::string line = transcript_.substr(from, next - 1 - from);
            from = next;
            if (line.find(text) != std::string::npos) return line;
        }
        if (!read_some(left(end)) && (Clock::now() >= end || !alive())) return std::nullopt;
    }
}

bool LineProcess::alive() {
    if (status_ >= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    return status_ < 0;
}

int LineProcess::finish() {
    if (input_ >= 0) close(input_);
    input_ = -1;
    while (read_some(Milliseconds(-1))) {
    }
    if (status_ < 0) waitpid(pid_, &status_, 0);
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

Outcome shell(const std::string& command) {
    LineProcess process({"sh", "-c", command});
    const int status = process.finish();
    return {status, process.transcript()};
}

}  // namespace test_support
