// How little the tool may do while it works, who may call it, and that it works alone.

#include "privileges.h"
#include "support/device.h"
#include "support/scenarios.h"
#include "support/tracer.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <map>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {
namespace {

constexpr uid_t user = 1234;
constexpr gid_t group = 5678;

std::map<std::string, std::string> process_status(pid_t pid) {
    std::map<std::string, std::string> fields;
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(':');
        const size_t value = line.find_first_not_of(" \t", colon + 1);
        if (colon != std::string::npos && value != std::string::npos) {
            fields[line.substr(0, colon)] = line.substr(value);
        }
    }
    return fields;
}

class Rights : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    void SetUp() override {
        if (!missing_for_tracing().empty()) {
            GTEST_SKIP() << missing_for_tracing();
        }
        DeviceTest::SetUp();
    }
};

TEST_P(Rights, AreReducedBeforeAnythingIsTouched) {
    const Scenario& scenario = GetParam();
    constexpr uint64_t mounting = 1ULL << CAP_SYS_ADMIN | 1ULL << CAP_DAC_OVERRIDE;
    constexpr uint64_t files = 1ULL << CAP_DAC_OVERRIDE | 1ULL << CAP_CHOWN | 1ULL << CAP_FOWNER;
    const bool mounts = scenario.words[0] == "--mount" || scenario.words[0] == "--umount";
    // It reads the manifest of what it puts in place.
    const uint64_t allowed = mounts                                ? mounting
                             : scenario.words[0] == "--replaceimg" ? mounting | files
                                                                   : files;
    scenario.prepare(device());
    int looked = 0;
    const Result result = trace(device(), scenario.words, [&](const SystemCall& call) -> Decision {
        if (!is_mutating(call) && call.number != SYS_openat2) {
            return {};
        }
        auto status = process_status(call.process);
        for (const char* set : {"CapPrm", "CapEff", "CapInh", "CapAmb"}) {
            const uint64_t held = std::stoull(status[set], nullptr, 16);
            EXPECT_EQ(held & ~allowed, 0U) << set << ' ' << held;
        }
        EXPECT_EQ(status["NoNewPrivs"], "1");
        EXPECT_EQ(status["Seccomp"], "2");
        EXPECT_EQ(status["Umask"], "0022");
        ++looked;
        return {};
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_GT(looked, 5);
}

TEST_P(Rights, FailureToReduceThemIsFatal) {
    const Scenario& scenario = GetParam();
    scenario.prepare(device());
    const auto before = state(device(), scenario);
    for (const long number : {SYS_capget, SYS_capset, SYS_prctl, SYS_seccomp, SYS_setresuid}) {
        const Result result =
            trace(device(), scenario.words, [&](const SystemCall& call) -> Decision {
                return call.number == number ? Decision{Decision::fail, EINVAL} : Decision{};
            });
        EXPECT_EQ(result.status, 71) << number;
        EXPECT_TRUE(is_one_line(result));
    }
    EXPECT_EQ(state(device(), scenario), before);
}

INSTANTIATE_TEST_SUITE_P(Verbs, Rights, testing::ValuesIn(scenarios()), scenario_name);

// The signal, or the status, with which a process ends that tries this with reduced rights.
template <typename Attempt>
int attempt(const Attempt& forbidden) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (!ad_mounter::reduce_rights(ad_mounter::Verb::mount).ok()) {
            _exit(99);
        }
        forbidden();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : -WEXITSTATUS(status);
}

TEST(Filter, ForbidsProgramsSocketsAndTracing) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    char name[] = "/bin/true";
    char* const argv[] = {name, nullptr};
    EXPECT_EQ(attempt([] {}), 0);
    EXPECT_EQ(attempt([&] { execv(name, argv); }), SIGSYS);
    EXPECT_EQ(attempt([&] { syscall(SYS_execveat, AT_FDCWD, name, argv, nullptr, 0); }), SIGSYS);
    EXPECT_EQ(attempt([] { socket(AF_UNIX, SOCK_STREAM, 0); }), SIGSYS);
    int ends[2];
    EXPECT_EQ(attempt([&] { socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }), SIGSYS);
    EXPECT_EQ(attempt([] { syscall(SYS_io_uring_setup, 1, nullptr); }), SIGSYS);
    EXPECT_EQ(attempt([] { syscall(SYS_vfork); }), SIGSYS);
    EXPECT_EQ(attempt([] { ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }), SIGSYS);
}

class SetUserId : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (!IsSkipped()) {
            device().install_set_user_id(group);
        }
    }
    Result run(const Words& words) {
        RunOptions options;
        options.user = user;
        options.group = group;
        return device().run(words, options);
    }
    void expect_owner(const std::string& inside, uid_t owner, gid_t owning_group, mode_t mode) {
        struct stat status;
        ASSERT_EQ(stat(device().at(inside).c_str(), &status), 0) << inside;
        EXPECT_EQ(status.st_uid, owner) << inside;
        EXPECT_EQ(status.st_gid, owning_group) << inside;
        EXPECT_EQ(status.st_mode & 07777, mode) << inside;
    }
};

TEST_F(SetUserId, WholeUpdateForAnOrdinaryUsersDaemon) {
    for (const char* name : {"create_path_usr_lib", "create_path_apps_adagent",
                             "create_path_apps_zeladagent", "create_file_apps_zeladagent_xml",
                             "create_path_zeladagent", "create_path_zeladagent_img"}) {
        const Result result = run({"--create", name});
        EXPECT_EQ(result.status, 0) << name << ": " << result.err;
    }
    expect_owner(agent_data, user, group, 0755);
    expect_owner(cache_manifest, user, group, 0644);
    expect_owner(mount_point, 0, 0, 0755);
    expect_owner(usr_lib, 0, 0, 0755);
    device().put_image(downloaded_image, "1.0");
    device().give(downloaded_image, user, group);
    ASSERT_EQ(chmod(device().at(downloaded_image).c_str(), 0600), 0);
    for (const Words& words :
         {replace_words, mount_words, library_words, tree_words, umount_words,
          Words{"--remove", "remove_player_res_path"}, Words{"--remove", "remove_usr_lib_file"}}) {
        const Result result = run(words);
        EXPECT_EQ(result.status, 0) << words[0] << ": " << result.err;
        if (words == library_words) {
            expect_owner(agent_library, 0, 0, 0644);
        } else if (words == tree_words) {
            expect_owner(player_res, 0, 0, 0755);
        }
    }
    expect_owner(stored_image, 0, 0, 0644);
    EXPECT_EQ(device().leftovers(), Words());
}

TEST_F(SetUserId, OnlyForTheGroupAndOnlyWithRoot) {
    RunOptions stranger;
    stranger.user = user;
    stranger.group = group + 1;
    EXPECT_EQ(device().run({"--help"}, stranger).status, 126) << "could be executed";
    ASSERT_EQ(chmod(device().at("/tool/ad-mounter").c_str(), 0755), 0);
    const Result result = run({"--create", "create_path_usr_lib"});
    EXPECT_EQ(result.status, 77);
    EXPECT_TRUE(is_one_line(result));
    EXPECT_FALSE(device().exists("/opt/usr"));
}

TEST_F(SetUserId, AnotherUsersDownloadIsRefused) {
    device().make_layout();
    device().put_image(downloaded_image, "1.0");
    device().give(downloaded_image, user + 1, group);
    EXPECT_EQ(run(replace_words).status, 77);
    EXPECT_FALSE(device().exists(stored_image));
}

TEST_F(SetUserId, CallerCannotKillARunThatWorks) {
    device().make_layout();
    device().make_directory("/run/ad-mounter");
    ASSERT_EQ(chmod(device().at("/run/ad-mounter").c_str(), 0700), 0);
    const int lock = open(device().at("/run/ad-mounter/lock").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        RunOptions options;
        options.user = user;
        options.group = group;
        device().execute({"--create", "create_path_usr_lib"}, options);
    }
    for (int i = 0; i < 1000 && process_status(pid)["Seccomp"] != "2"; ++i) {
        usleep(1000);
    }
    const pid_t killer = fork();
    if (killer == 0) {
        _exit(setuid(user) == 0 && kill(pid, SIGKILL) != 0 && errno == EPERM ? 0 : 1);
    }
    int status = 0;
    waitpid(killer, &status, 0);
    EXPECT_EQ(status, 0);
    close(lock);
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

class Lock : public DeviceTest {
protected:
    int hold() {
        device().run({"--create", "create_path_usr_lib"});
        const int fd = open(device().at("/run/ad-mounter/lock").c_str(), O_RDWR);
        EXPECT_EQ(flock(fd, LOCK_EX), 0);
        return fd;
    }
};

TEST_F(Lock, RunsWaitForEachOther) {
    const int lock = hold();
    const pid_t pid = fork();
    if (pid == 0) {
        device().execute({"--create", "create_path_zeladagent"}, {});
    }
    usleep(300'000);
    EXPECT_FALSE(device().exists("/opt/down")) << "did not wait";
    close(lock);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(device().exists("/opt/down/zels/zelADAgent"));
    struct stat directory;
    ASSERT_EQ(stat(device().at("/run/ad-mounter").c_str(), &directory), 0);
    EXPECT_EQ(directory.st_mode & 07777, 0700U);
}

TEST_F(Lock, ThirtySecondsAtMost) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    const int lock = hold();
    uint64_t asked = 0;
    const auto shorten = [&](const SystemCall& call) -> Decision {
        if (call.number == SYS_alarm && call.arguments[0] != 0) {
            asked = call.arguments[0];
            return {Decision::replace_first_argument, 1};
        }
        return {};
    };
    const Result result = trace(device(), {"--create", "create_path_zeladagent"}, shorten);
    EXPECT_EQ(result.status, 75);
    EXPECT_TRUE(is_one_line(result));
    EXPECT_EQ(asked, 30U);
    EXPECT_FALSE(device().exists("/opt/down"));
    close(lock);
}

TEST_F(Lock, ManyRunsAtOnceAllSucceed) {
    device().make_layout();
    device().put_image(stored_image, "1.0");
    pid_t pids[24];
    for (size_t i = 0; i < std::size(pids); ++i) {
        pids[i] = fork();
        if (pids[i] == 0) {
            device().execute(i % 3 == 2 ? umount_words : mount_words, {});
        }
    }
    for (const pid_t pid : pids) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(device().run(umount_words).status, 0);
    EXPECT_EQ(device().loop_devices(), Words());
}

TEST_F(Lock, DirectoryOfOthersIsRefused) {
    device().make_directory("/run/ad-mounter");
    for (const auto& [owner, mode] : {std::pair(0U, 0755), std::pair(user, 0700)}) {
        device().give("/run/ad-mounter", owner, 0);
        ASSERT_EQ(chmod(device().at("/run/ad-mounter").c_str(), static_cast<mode_t>(mode)), 0);
        EXPECT_EQ(device().run({"--create", "create_path_usr_lib"}).status, 77);
    }
    EXPECT_FALSE(device().exists("/opt/usr"));
}

}  // namespace
}  // namespace mounter_test
