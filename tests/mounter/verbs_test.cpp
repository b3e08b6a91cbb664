// Every verb from a known state to a known state: with failing calls and killed, with
// links in its paths, and how little it may do meanwhile.

#include "support/device.h"
#include "support/tracer.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

using Prepare = std::function<void(const Device&)>;

struct Scenario {
    std::string name;
    Words words;
    Prepare prepare;          // brings the device into the state before, whatever was there
    std::string changed;      // the state is what is seen there
    std::string walked = "";  // a further path that is walked
    bool gap = false;         // whether the old may be gone before the new is there
};

// How GoogleTest prints one.
void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

void start_over(const Device& device) {
    while (umount2(device.at(mount_point).c_str(), UMOUNT_NOFOLLOW) == 0) {
    }
    for (const char* top : {"/opt/usr", "/opt/down", "/usr/bin/zels"}) {
        device.remove(top);
    }
}

void install_old_version(const Device& device) {
    start_over(device);
    device.make_layout();
    device.put_tree(mount_point, "2.0");
    // Larger than what is copied at a time.
    device.write(mounted_library, std::string(1'500'000, 'l'));
    device.write(agent_library, "the old library");
    device.write(player_library, "the old player");
    device.write(std::string(player_res) + "/old/page", "the old page");
}

void install_no_resources(const Device& device) {
    install_old_version(device);
    device.remove(player_res);
}

Prepare store_image(const std::string& type = "squashfs") {
    return [type](const Device& device) {
        start_over(device);
        device.make_layout();
        device.put_image(stored_image, "1.0", type);
    };
}

Prepare mount_image(const std::string& type, const std::string& next_version = "") {
    return [type, next_version](const Device& device) {
        store_image(type)(device);
        EXPECT_TRUE(ended(device.run(mount_words), 0));
        if (!next_version.empty()) {
            device.put_image(stored_image, next_version, type);
        }
    };
}

Prepare download_image(uid_t owner) {
    return [owner](const Device& device) {
        store_image()(device);
        device.put_image(downloaded_image, "2.0");
        device.give(downloaded_image, owner, 0);
    };
}

std::vector<Scenario> scenarios() {
    const auto create = [](const char* what) { return Words{"--create", what}; };
    const auto remove = [](const char* what) { return Words{"--remove", what}; };
    return {
        {"CreateDirectory", create("create_path_apps_adagent"), start_over, agent_data},
        {"CreateManifest", create("create_file_apps_zeladagent_xml"), start_over, cache_manifest},
        {"RemoveLibraries", remove("remove_usr_lib_file"), install_old_version, agent_library,
         player_library},
        {"RemoveLibraryPath", remove("remove_usr_lib_path"), install_old_version, usr_lib},
        {"RemoveImage", remove("remove_zel_adagent_img_file"), store_image(), stored_image},
        {"RemoveResources", remove("remove_player_res_path"), install_old_version, player_res},
        {"MountSquashfs", mount_words, store_image(), mount_point, stored_image},
        {"MountErofs", mount_words, store_image("erofs"), mount_point, stored_image},
        {"MountOverOldsquashfs", mount_words, mount_image("squashfs", "2.0"), mount_point,
         stored_image, true},
        {"MountOverOlderofs", mount_words, mount_image("erofs", "2.0"), mount_point, stored_image,
         true},
        {"Unmount", umount_words, mount_image("squashfs"), mount_point},
        {"ReplaceByRename", replace_words, download_image(0), stored_image, downloaded_image},
        {"ReplaceByCopy", replace_words, download_image(1234), stored_image, downloaded_image},
        {"CopyLibrary", library_words, install_old_version, agent_library, mounted_library},
        {"CopyTree", tree_words, install_old_version, player_res, mounted_res},
        {"CopyTreeAnew", tree_words, install_no_resources, player_res, mounted_res},
    };
}

class VerbTest : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    static const Scenario& scenario() { return GetParam(); }
};

// Stands among the errors for the death of the process.
constexpr int killed = 0;

// Every call that can fail fails once, and every run is killed once before each call that
// changes something: what is there is the old or the new, and the next run brings
// everything in order.
class Faults : public VerbTest {
protected:
    using Interesting = bool (*)(const SystemCall&);

    void disturb_each(Interesting interesting, const std::vector<int>& errors) {
        prepare_state();
        before_ = state();
        size_t count = 0;
        EXPECT_TRUE(ended(disturb(interesting, SIZE_MAX, killed, count), 0));
        after_ = state();
        EXPECT_NE(before_, after_);
        ASSERT_GT(count, 1U);
        for (size_t at = 0; at < count && !HasFailure(); ++at) {
            for (const int error : errors) {
                prepare_state();
                size_t seen = 0;
                const Result result = disturb(interesting, at, error, seen);
                if (seen <= at) {
                    // Another test took the loop device in the counted run, which tried again.
                    EXPECT_TRUE(ended(result, 0));
                    continue;
                }
                SCOPED_TRACE(disturbed_ + ": " + (error == killed ? "killed" : strerror(error)) +
                             ", point " + std::to_string(at));
                EXPECT_EQ(result.status == -SIGKILL, error == killed);
                check_old_or_new(result);
                check_rerun();
            }
        }
        printf("%zu points tried\n", count * errors.size());
    }

private:
    static bool replaces() { return scenario().walked == downloaded_image; }
    void prepare_state() { scenario().prepare(device()); }
    Snapshot state() { return device().snapshot(scenario().changed); }

    // Runs with the error at the call number `at` of a kind.
    Result disturb(Interesting interesting, size_t at, int error, size_t& count) {
        return trace(device(), scenario().words, [&](const SystemCall& call) {
            if (!interesting(call) || count++ != at) {
                return 0;
            }
            disturbed_ = name_of(call);
            if (error == killed) {
                kill(call.process, SIGKILL);
            }
            return error;
        });
    }

    void check_old_or_new(const Result& result) {
        const Snapshot now = state();
        const bool between = scenario().gap && device().mounts().empty();
        EXPECT_TRUE(now == before_ || now == after_ || between) << "neither old nor new";
        if (result.status >= 0) {
            EXPECT_TRUE(ended(result, result.status));
            EXPECT_TRUE(result.status == 0 || (result.status >= 65 && result.status <= 77));
        }
        EXPECT_TRUE(result.status != 0 || now == after_) << "success, but not done";
        EXPECT_TRUE(!replaces() || device().exists(downloaded_image) || now == after_)
            << "the download is gone too early";
    }

    void check_rerun() {
        const bool done = state() == after_;
        const Result again = device().run(scenario().words);
        // Nothing is left to be put in place when it is there.
        EXPECT_TRUE(ended(again, done && replaces() && again.status != 0 ? 66 : 0));
        EXPECT_EQ(state(), after_);
        EXPECT_TRUE(device().is_clean(1));
    }

    Snapshot before_;
    Snapshot after_;
    std::string disturbed_;
};

TEST_P(Faults, EachFailingCallLeavesOldOrNew) {
#ifdef __SANITIZE_ADDRESS__
    disturb_each(is_faulty, {EIO});
#else
    disturb_each(is_faulty, {ENOSPC, EIO, EROFS, EACCES, EBUSY, EMFILE});
#endif
}

TEST_P(Faults, EachKillLeavesOldOrNew) { disturb_each(is_mutating, {killed}); }

INSTANTIATE_TEST_SUITE_P(Verbs, Faults, testing::ValuesIn(scenarios()),
                         testing::PrintToStringParamName());

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

// Links are refused where they stand, and harmless where they are swapped in during a run.
class Paths : public VerbTest {
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

class Rights : public VerbTest {};

TEST_P(Rights, AreReducedAndTheProcessInOrderBeforeAnythingIsTouched) {
    const std::string& verb = scenario().words[0];
    constexpr uint64_t mounting = 1ULL << CAP_SYS_ADMIN | 1ULL << CAP_DAC_OVERRIDE;
    constexpr uint64_t files = 1ULL << CAP_DAC_OVERRIDE | 1ULL << CAP_CHOWN | 1ULL << CAP_FOWNER;
    // Replacing reads the manifest of what it puts in place.
    const uint64_t allowed = verb == "--mount" || verb == "--umount" ? mounting
                             : verb == "--replaceimg"                ? mounting | files
                                                                     : files;
    const auto disorder = [] {
        (void)!chdir("/home");
        umask(0777);
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            close(fd);
        }
    };
    bool looked = false;
    const auto look = [&](const SystemCall& call) {
        const std::string process = "/proc/" + std::to_string(call.process);
        if (call.number == SYS_flock) {
            for (const char* descriptor : {"/fd/0", "/fd/1", "/fd/2"}) {
                EXPECT_EQ(fs::read_symlink(process + descriptor), device().at("/dev/null"));
            }
            EXPECT_EQ(fs::read_symlink(process + "/cwd"), device().at(""));
            looked = true;
        }
        if (is_mutating(call) || call.number == SYS_openat2) {
            for (const char* set : {"CapPrm", "CapEff", "CapInh", "CapAmb"}) {
                const uint64_t held = std::stoull(status_field(call.process, set), nullptr, 16);
                EXPECT_EQ(held & ~allowed, 0U) << set << ' ' << held;
            }
            EXPECT_EQ(status_field(call.process, "NoNewPrivs"), "1");
            EXPECT_EQ(status_field(call.process, "Seccomp"), "2");
            EXPECT_EQ(status_field(call.process, "Umask"), "0022");
        }
        return 0;
    };
    scenario().prepare(device());
    EXPECT_TRUE(ended(trace(device(), scenario().words, look, disorder), 0));
    EXPECT_TRUE(looked);
}

INSTANTIATE_TEST_SUITE_P(Verbs, Rights, testing::ValuesIn(scenarios()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace mounter_test
