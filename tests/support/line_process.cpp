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
    m_pid = fork();
    if (m_pid == 0) {
        dup2(to_child[0], STDIN_FILENO);
        dup2(from_child[1], STDOUT_FILENO);
        dup2(from_child[1], STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        perror(arguments[0]);
        _exit(127);
    }
    close(to_child[0]);
    close(from_child[1]);
    m_input = to_child[1];
    m_output = from_child[0];
    signal(SIGPIPE, SIG_IGN);
}

LineProcess::~LineProcess() {
    if (m_pid > 0 && m_status < 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
    if (m_input >= 0) close(m_input);
    close(m_output);
}

void LineProcess::send(const std::string& line) {
    const std::string text = line + "\n";
    if (write(m_input, text.data(), text.size()) < 0)
        m_transcript += "(cannot send " + line + ")\n";
}

bool LineProcess::read_some(Milliseconds limit) {
    pollfd ready = {m_output, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(limit.count())) <= 0) return false;
    char chunk[4096];
    const ssize_t size = read(m_output, chunk, sizeof chunk);
    if (size <= 0) return false;
    m_partial.append(chunk, static_cast<size_t>(size));
    m_transcript.append(chunk, static_cast<size_t>(size));
    for (size_t end = m_partial.find('\n'); end != std::string::npos; end = m_partial.find('\n')) {
        m_lines.push_back(m_partial.substr(0, end));
        m_partial.erase(0, end + 1);
    }
    return true;
}

std::optional<std::string> LineProcess::await(const std::string& text, Milliseconds limit) {
    return take(text, limit, true);
}

std::optional<std::string> LineProcess::pick(const std::string& text, Milliseconds limit) {
    return take(text, limit, false);
}

std::optional<std::string> LineProcess::take(const std::string& text, Milliseconds limit,
                                             bool forget) {
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        const auto found = std::find_if(
            m_lines.begin(), m_lines.end(),
            [&text](const std::string& line) { return line.find(text) != std::string::npos; });
        if (found != m_lines.end()) {
            std::string line = *found;
            m_lines.erase(forget ? m_lines.begin() : found, found + 1);
            return line;
        }
        if (!read_some(left(end)) && (Clock::now() >= end || !alive())) return std::nullopt;
    }
}

std::vector<std::string> LineProcess::collect(Milliseconds time) {
    const Clock::time_point end = Clock::now() + time;
    while (read_some(left(end)) || (Clock::now() < end && alive())) {
    }
    std::vector<std::string> lines(m_lines.begin(), m_lines.end());
    m_lines.clear();
    return lines;
}

bool LineProcess::alive() {
    if (m_status >= 0) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) m_status = status;
    return m_status < 0;
}

int LineProcess::finish() {
    if (m_input >= 0) close(m_input);
    m_input = -1;
    while (read_some(Milliseconds(10000))) {
    }
    if (m_status < 0) waitpid(m_pid, &m_status, 0);
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
}

}  // namespace test_support
