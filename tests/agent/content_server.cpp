#include "content_server.h"

#include "ADDigest.h"

#include <array>
#include <csignal>
#include <sstream>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

ContentServer::ContentServer(const std::string& certificate) {
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
    std::string port;
    char digit = 0;
    while (read(ends[0], &digit, 1) == 1 && digit != '\n') port += digit;
    close(ends[0]);
    m_url = (certificate.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") + port;
}

ContentServer::~ContentServer() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

void ContentServer::serve(const std::string& url_path, const std::string& content) const {
    write_file(m_folder / ("content" + url_path), content);
}

void ContentServer::publish(const std::string& version, const std::string& image,
                            std::string sha256, std::string size) const {
    const std::string name = "zelADAgent-" + version + ".img";
    serve("/images/" + name, image);
    if (sha256.empty()) sha256 = ad_sha256_file((m_folder / ("content/images/" + name)).c_str());
    if (size.empty()) size = std::to_string(image.size());
    serve("/update.ini", "[image]\nversion=" + version + "\nsize=" + size + "\nsha256=" + sha256 +
                             "\nfile=" + name + "\n");
}

void ContentServer::set_faults(const std::string& lines) const {
    write_file(m_folder / "faults", lines);
}

std::vector<std::string> ContentServer::take_requests() const {
    std::istringstream log(read_file(m_folder / "log"));
    std::filesystem::remove(m_folder / "log");
    std::vector<std::string> paths;
    for (std::string path; std::getline(log, path);) paths.push_back(path);
    return paths;
}
