/**
 * The content server for tests, run as a process for as long as the object lives.
 */
#ifndef TESTS_AGENT_CONTENT_SERVER_H
#define TESTS_AGENT_CONTENT_SERVER_H

#include "ADDigest.h"
#include "temporary_folder.h"

#include <array>
#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

class ContentServer {
public:
    /** @param certificate  a PEM file of a certificate and its key, for HTTPS */
    explicit ContentServer(const std::string& certificate = "")
        : m_url(certificate.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") {
        std::filesystem::create_directory(m_folder / "content");
        std::array<int, 2> ends = {};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[1], STDOUT_FILENO);
            // Without a certificate the list of arguments ends before it.
            execl(CONTENT_SERVER, CONTENT_SERVER, "--log", (m_folder / "log").c_str(), "--faults",
                  (m_folder / "faults").c_str(), (m_folder / "content").c_str(),
                  certificate.empty() ? nullptr : "--certificate", certificate.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
        char digit = 0;
        while (read(ends[0], &digit, 1) == 1 && digit != '\n') m_url += digit;
        close(ends[0]);
    }
    ~ContentServer() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    ContentServer(const ContentServer&) = delete;
    ContentServer& operator=(const ContentServer&) = delete;

    const std::string& url() const { return m_url; }
    pid_t pid() const { return m_pid; }

    /** Puts a file where the server finds it. */
    void serve(const std::string& url_path, const std::string& content) const {
        write_file(m_folder / ("content" + url_path), content);
    }

    /** Publishes an image and its index, whose end may say something else. */
    void publish(const std::string& version, const std::string& image,
                 const std::string& lines = "") const {
        const std::string path = "/images/zelADAgent-" + version + ".img";
        serve(path, image);
        serve("/update.ini",
              "[image]\nversion=" + version + "\nsize=" + std::to_string(image.size()) +
                  "\nsha256=" + ad_sha256_file((m_folder / "content" + path).c_str()) +
                  "\nfile=zelADAgent-" + version + ".img\n" + lines);
    }

    /** Says how to misbehave, as lines of content_server.py; no line for not at all. */
    void set_faults(const std::string& lines) const { write_file(m_folder / "faults", lines); }

    /** What was asked for since the last call, as lines of content_server.py. */
    std::vector<std::string> take_requests() const {
        std::istringstream log(read_file(m_folder / "log"));
        std::filesystem::remove(m_folder / "log");
        std::vector<std::string> paths;
        for (std::string path; std::getline(log, path);) paths.push_back(path);
        return paths;
    }

private:
    TemporaryFolder m_folder;
    pid_t m_pid = -1;
    std::string m_url;
};

#endif
