/**
 * Files and directories of a test's own.
 */
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace test_support {

/** A new directory under the system's temporary one, removed with all in it. */
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        if (mkdtemp(path_.data()) == nullptr) {
            std::abort();
        }
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "adagentd-test-XXXXXX";
};

/** Replaces a file's contents; creates its directory if missing. */
inline void write_file(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

/** A file's contents, empty for one that is not there. */
inline std::string read_file(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline std::vector<std::string> split_lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace test_support
