/**
 * A folder of a test's own, removed with all in it, and plain file access.
 */
#ifndef TESTS_AGENT_TEMPORARY_FOLDER_H
#define TESTS_AGENT_TEMPORARY_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using Names = std::set<std::string>;

/** What is done or given, and what must come of it. */
using Cases = std::vector<std::pair<std::string, std::string>>;

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = std::filesystem::temp_directory_path() / "ad-agent-XXXXXX";
        if (!mkdtemp(name.data())) std::abort();
        m_path = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
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

#endif
