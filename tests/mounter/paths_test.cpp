// Links in paths: refused where they stand, harmless where they are swapped in
// during a run.

#include "support/device.h"
#include "support/scenarios.h"
#include "support/tracer.h"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

#ifdef __SANITIZE_ADDRESS__
// Linked dynamically, the tool would not even start without /usr.
constexpr const char* kept = "/usr";
constexpr int runs = 2;
#else
constexpr const char* kept = "/";
constexpr int runs = 12;
#endif

// Where the links lead: a tree that looks like the real one, with something at
// every place that a verb could change.
constexpr const char* victim = "/home/victim";

class Paths : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    void prepare() override {
        const std::string top = victim;
        for (const char* path :
             {agent_library, player_library, cache_manifest, downloaded_image, stored_image}) {
            device().write(top + path, "the victim's own");
        }
        device().put_tree(top + mount_point, "9.9");
        device().write(top + player_res + "/page.html", "the victim's own page");
        before_ = device().snapshot(victim);
    }

    static const Scenario& scenario() { return GetParam(); }

    // Calls it with every component of every path, as the path up to it.
    template <typename Visit>
    void for_each_component(const Visit& visit) {
        std::set<fs::path> seen = {kept};
        for (fs::path part : {scenario().changed, scenario().walked}) {
            for (; !part.empty() && part != "/"; part = part.parent_path()) {
                if (!seen.insert(part).second) {
                    continue;
                }
                scenario().prepare(device());
                if (part != mount_point || device().mounts().empty()) {
                    SCOPED_TRACE(part);
                    visit(part);
                    EXPECT_EQ(device().snapshot(victim), before_);
                }
            }
        }
    }

    template <typename Run>
    void check_links_are_refused(const Run& run) {
        for_each_component([&](const std::string& component) {
            const fs::path path = device().at(component);
            fs::create_directories(path.parent_path());
            std::error_code ignored;
            fs::rename(path, path.string() + ".real", ignored);
            fs::create_symlink(victim + component, path);
            EXPECT_TRUE(ended(run(), 77));
            fs::remove(path);
            fs::rename(path.string() + ".real", path, ignored);
        });
    }

private:
    Snapshot before_;
};

TEST_P(Paths, LinkAtAnyComponentIsRefused) {
    check_links_are_refused([this] { return device().run(scenario().words); });
}

TEST_P(Paths, LinkIsRefusedByTheWalkOfOlderKernels) {
    const auto without_openat2 = [](const SystemCall& call) {
        return call.number == SYS_openat2 ? ENOSYS : 0;
    };
    const auto run = [&] { return trace(device(), scenario().words, without_openat2); };
    check_links_are_refused(run);
    scenario().prepare(device());
    EXPECT_TRUE(ended(run(), 0));
}

TEST_P(Paths, LinkSwappedInDuringTheRunHasNoEffect) {
    unsigned long all_swaps = 0;
    const auto run_while_swapping = [&](const std::string& component) {
        const std::string path = device().at(component);
        const std::string link = path + ".link";
        std::atomic<unsigned long> swaps = 0;
        std::atomic<bool> stop = false;
        const auto swap = [&] {
            const bool done =
                renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0;
            swaps += done ? 1 : 0;
        };
        if (!device().exists(component)) {
            device().make_directory(component);
        }
        fs::create_symlink(victim + component, link);
        std::thread swapper([&] {
            while (!stop) {
                swap();
            }
        });
        while (swaps == 0) {
            usleep(10);
        }
        EXPECT_GE(device().run(scenario().words).status, 0) << "killed by a signal";
        stop = true;
        swapper.join();
        if (fs::is_symlink(path)) {
            swap();
        }
        fs::remove_all(link);
        for (const std::string& mounted : device().mounts()) {
            EXPECT_NE(mounted.find(device().at(mount_point) + ' '), std::string::npos) << mounted;
        }
        all_swaps += swaps;
    };
    for (int i = 0; i < runs; ++i) {
        for_each_component(run_while_swapping);
    }
    EXPECT_GT(all_swaps, 2000U);
}

INSTANTIATE_TEST_SUITE_P(Verbs, Paths, testing::ValuesIn(scenarios()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace mounter_test
