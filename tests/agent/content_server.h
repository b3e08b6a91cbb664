/**
 * The content server for tests, run as a process for as long as the object lives.
 */
#ifndef TESTS_AGENT_CONTENT_SERVER_H
#define TESTS_AGENT_CONTENT_SERVER_H

#include "temporary_folder.h"

#include <string>
#include <vector>

#include <sys/types.h>

class ContentServer {
public:
    /** @param certificate  a PEM file of a certificate and its key, for HTTPS */
    explicit ContentServer(const std::string& certificate = "");
    ~ContentServer();
    ContentServer(const ContentServer&) = delete;
    ContentServer& operator=(const ContentServer&) = delete;

    const std::string& url() const { return m_url; }
    pid_t pid() const { return m_pid; }

    /** Puts a file where the server finds it. */
    void serve(const std::string& url_path, const std::string& content) const;

    /** Publishes an image: the index, with values of its own where they are given, and the file. */
    void publish(const std::string& version, const std::string& image, std::string sha256 = "",
                 std::string size = "") const;

    /** Says how to misbehave, as lines of content_server.py; no line for not at all. */
    void set_faults(const std::string& lines) const;

    /** What was asked for since the last call, as lines of content_server.py. */
    std::vector<std::string> take_requests() const;

private:
    TemporaryFolder m_folder;
    pid_t m_pid = -1;
    std::string m_url;
};

#endif
