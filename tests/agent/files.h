/**
 * A folder of a test's own, removed with all in it, plain file access, and command lines.
 */
#ifndef TESTS_AGENT_FILES_H
#define TESTS_AGENT_FILES_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>

using Names = std::set<std::string>;

/** What is done or given, and what must come of it. */
using Cases = std::vector<std::pair<std::string, std::string>>;

class TemporaryFolder {
public:
    TemporaryFolder() {
        if (!mkdtemp(m_path.data())) std::abort();
    }
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path = std::filesystem::temp_directory_path() / "ad-agent-XXXXXX";
};

inline void write_file(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline Names names_in(const std::filesystem::path& folder, const std::string& start = "") {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.compare(0, start.size(), start) == 0) names.insert(name);
    }
    return names;
}

/** Runs a shell's command line in a folder. @return its exit status; said gets its output */
inline int run_in(const std::string& folder, const std::string& command, std::string& said) {
    FILE* pipe = popen(("exec 2>&1; cd '" + folder + "'; " + command).c_str(), "re");
    said.clear();
    for (int byte = 0; (byte = std::getc(pipe)) != EOF;) said += static_cast<char>(byte);
    return WEXITSTATUS(pclose(pipe));
}

#endif
