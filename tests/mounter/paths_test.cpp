// Links in paths: refused where they stand, harmless where they are swapped in
// during a run.

#include "support/device.h"
#include "support/scenarios.h"
#include "support/tracer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

// Where the links lead: a tree that looks like the real one, with something at
// every place that a verb could change.
constexpr const char* victim = "/home/victim";

void make_victim(const Device& device) {
    const std::string top = victim;
    for (const char* path :
         {agent_library, player_library, cache_manifest, downloaded_image, stored_image}) {
        device.write(top + path, "the victim's own");
    }
    device.put_tree(top + mount_point, "9.9");
    device.write(top + player_res + "/page.html", "the victim's own page");
}

#ifdef __SANITIZE_ADDRESS__
// Linked dynamically, the tool would not even start without /usr.
constexpr const char* kept = "/usr";
constexpr int runs = 2;
#else
constexpr const char* kept = "/";
constexpr int runs = 12;
#endif

// Every component of every path, as the path up to it.
Words components(const Scenario& scenario) {
    Words all;
    for (const Words& paths : {scenario.changed, scenario.walked}) {
        for (const std::string& path : paths) {
            for (fs::path part = path; part != "/"; part = part.parent_path()) {
                if (part != kept && std::find(all.begin(), all.end(), part) == all.end()) {
                    all.push_back(part);
                }
            }
        }
    }
    return all;
}

class Paths : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    static const Scenario& scenario() { return GetParam(); }

    // Moves `component` away and puts a link to the victim's in its place.
    bool put_link(const std::string& component) {
        const std::string path = device().at(component);
        fs::create_directories(fs::path(path).parent_path());
        std::error_code ignored;
        fs::rename(path, path + ".real", ignored);
        return symlink((victim + component).c_str(), path.c_str()) == 0;
    }

    void take_link_away(const std::string& component) {
        const std::string path = device().at(component);
        fs::remove(path);
        std::error_code ignored;
        fs::rename(path + ".real", path, ignored);
    }

    void check_links_are_refused(const std::function<Result()>& run) {
        make_victim(device());
        const Snapshot before = snapshot(device().at(victim));
        for (const std::string& component : components(scenario())) {
            scenario().prepare(device());
            if (component == mount_point && !device().mounts().empty()) {
                continue;
            }
            ASSERT_TRUE(put_link(component)) << component;
            const Result result = run();
            EXPECT_EQ(result.status, 77) << component << ": " << result.err;
            EXPECT_TRUE(is_one_line(result));
            EXPECT_EQ(snapshot(device().at(victim)), before) << component;
            take_link_away(component);
        }
    }
};

TEST_P(Paths, LinkAtAnyComponentIsRefused) {
    check_links_are_refused([this] { return device().run(scenario().words); });
}

TEST_P(Paths, LinkIsRefusedByTheWalkOfOlderKernels) {
    const std::string missing = missing_for_tracing();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    const auto without_openat2 = [](const SystemCall& call) -> Decision {
        if (call.number == SYS_openat2) {
            return {Decision::fail, ENOSYS};
        }
        return {};
    };
    const auto run = [&] { return trace(device(), scenario().words, without_openat2); };
    check_links_are_refused(run);
    scenario().prepare(device());
    const Result result = run();
    EXPECT_EQ(result.status, 0) << result.err;
}

// Exchanges a path with a link to the victim's as fast as it can.
class Swapper {
public:
    Swapper(std::string path, std::string link) : path_(std::move(path)), link_(std::move(link)) {
        const unsigned long before = swaps();
        pid_ = fork();
        if (pid_ == 0) {
            for (;;) {
                if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, link_.c_str(), RENAME_EXCHANGE) ==
                    0) {
                    ++*counter();
                }
            }
        }
        while (swaps() == before) {
            usleep(10);
        }
    }

    // Leaves the real one in its place, and no link.
    ~Swapper() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        std::error_code ignored;
        if (fs::is_symlink(path_)) {
            fs::remove(path_, ignored);
            fs::rename(link_, path_, ignored);
        } else if (fs::is_symlink(link_)) {
            fs::remove(link_, ignored);
        }
    }
    static unsigned long swaps() { return *counter(); }

private:
    static std::atomic<unsigned long>* counter() {
        static auto* shared = static_cast<std::atomic<unsigned long>*>(
            mmap(nullptr, sizeof(std::atomic<unsigned long>), PROT_READ | PROT_WRITE,
                 MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        return shared;
    }
    std::string path_;
    std::string link_;
    pid_t pid_ = -1;
};

// Image mounts anywhere in the device but at the mount point.
Words stray_mounts(const Device& device) {
    Words stray;
    std::ifstream list("/proc/self/mountinfo");
    for (std::string line; std::getline(list, line);) {
        const bool image = line.find(" - squashfs ") != std::string::npos ||
                           line.find(" - erofs ") != std::string::npos;
        if (image && line.find(' ' + device.at("/")) != std::string::npos &&
            line.find(' ' + device.at(mount_point) + ' ') == std::string::npos) {
            stray.push_back(line);
        }
    }
    return stray;
}

TEST_P(Paths, LinkSwappedInDuringTheRunHasNoEffect) {
    make_victim(device());
    const Snapshot before = snapshot(device().at(victim));
    const Words all = components(scenario());
    const unsigned long swaps_before = Swapper::swaps();
    for (size_t i = 0; i < all.size() * runs; ++i) {
        const std::string& component = all[i % all.size()];
        scenario().prepare(device());
        if (component == mount_point && !device().mounts().empty()) {
            continue;
        }
        const std::string path = device().at(component);
        const std::string link = path + ".link";
        if (!device().exists(component)) {
            device().make_directory(component);
        }
        ASSERT_EQ(symlink((victim + component).c_str(), link.c_str()), 0);
        {
            const Swapper swapper(path, link);
            ASSERT_GE(device().run(scenario().words).status, 0) << "killed by a signal";
        }
        ASSERT_EQ(snapshot(device().at(victim)), before) << component;
        ASSERT_EQ(stray_mounts(device()), Words()) << component;
        fs::remove_all(link);
    }
    const unsigned long swaps = Swapper::swaps() - swaps_before;
    std::cout << scenario().name << ": " << swaps << " swaps at " << all.size() << " components in "
              << runs * all.size() << " runs\n";
    EXPECT_GT(swaps, 2000U);
}

INSTANTIATE_TEST_SUITE_P(Verbs, Paths, testing::ValuesIn(scenarios()), scenario_name);

}  // namespace
}  // namespace mounter_test
