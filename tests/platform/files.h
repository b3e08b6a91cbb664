/** Files as an editor leaves them, and the main loop that notices. */
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <glib.h>
#include <gtest/gtest.h>

namespace simulated_platform_tests {

/** A folder that goes with the object. */
class TemporaryFolder {
public:
    TemporaryFolder() {
        if (!mkdtemp(path_.data())) std::abort();
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_ = testing::TempDir() + "/platform-XXXXXX";
};

inline void write_in_place(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

inline void rename_over(const std::string& path, const std::string& text) {
    write_in_place(path + ".new", text);
    std::filesystem::rename(path + ".new", path);
}

inline std::vector<std::string> lines_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

/** Runs what the main loop has to do: an edit is an event by the time its writer goes on. */
inline void run_pending() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

}  // namespace simulated_platform_tests
