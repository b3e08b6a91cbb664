// How a run begins: what it takes over from its caller, who that may be, and that it works
// alone.

#include "privileges.h"
#include "process_start.h"
#include "support/device.h"
#include "support/tracer.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mounter_test {
namespace {

constexpr uid_t user = 1234;
constexpr gid_t group = 5678;
const Words create_words = {"--create", "create_path_usr_lib"};

TEST(Filter, ForbidsProgramsSocketsAndTracing) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    for (const long call : {SYS_execve, SYS_execveat, SYS_socket, SYS_socketpair,
                            SYS_io_uring_setup, SYS_vfork, SYS_ptrace}) {
        EXPECT_EXIT(
            {
                (void)ad_mounter::drop_privileges(ad_mounter::command_specs[2]);
                syscall(call, 0, 0, 0, 0, 0);
                _exit(0);
            },
            testing::KilledBySignal(SIGSYS), "")
            << call;
    }
}

TEST(Environment, IsCleared) {
    EXPECT_EXIT(
        {
            setenv("LD_PRELOAD", "/stage/evil.so", 1);
            const bool prepared = ad_mounter::prepare_process().ok();
            _exit(prepared && getenv("LD_PRELOAD") == nullptr && getenv("PATH") == nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

class Start : public DeviceTest {};

TEST_F(Start, WrongUsageIsOneLineAndTouchesNothing) {
    for (const Words& words : {Words{}, Words{"--create", "x\ny"}, Words{"--umount", "/"}}) {
        EXPECT_TRUE(ended(device().run(words), 64));
    }
    EXPECT_FALSE(device().exists("/run/ad-mounter"));
}

TEST_F(Start, EmptyArgumentVectorAndHostileEnvironmentChangeNothing) {
    const auto execute = [](std::vector<const char*> argv, std::vector<const char*> environment) {
        argv.push_back(nullptr);
        environment.push_back(nullptr);
        execve("/tool/ad-mounter", const_cast<char**>(argv.data()),
               const_cast<char**>(environment.data()));
    };
    EXPECT_TRUE(ended(device().run({}, [&] { execute({}, {}); }), 64));
    device().write("/stage/evil.so", "not a library");
    std::vector<const char*> hostile = {"PATH=/home", "IFS=/"};
#ifndef __SANITIZE_ADDRESS__
    // A dynamic loader would complain about these.
    hostile.insert(hostile.end(), {"LD_PRELOAD=/stage/evil.so", "LD_LIBRARY_PATH=/stage",
                                   "LD_AUDIT=/stage/evil.so", "MALLOC_CHECK_=3"});
#endif
    const auto create = [&] {
        execute({"ad-mounter", "--create", "create_path_usr_lib"}, hostile);
    };
    EXPECT_TRUE(ended(device().run({}, create), 0));
    EXPECT_TRUE(device().exists(usr_lib));
}

TEST_F(Start, HelpAndVersionTellTheTable) {
    const Result help = device().run({"--help"});
    EXPECT_TRUE(ended(help, 0));
    for (const char* part : {"--copy_all", "create_file_apps_zeladagent_xml", stored_image,
                             player_library, player_res, "--version"}) {
        EXPECT_NE(help.out.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(device().run({"--version"}).out.find("ad-mounter "), 0U);
    const auto fill = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    EXPECT_EQ(device().run({"--help"}, fill).status, 74);
}

TEST_F(Start, FailureToReduceRightsIsFatal) {
    for (const long number : {SYS_capget, SYS_capset, SYS_prctl, SYS_seccomp, SYS_setresuid}) {
        const auto fail = [number](const SystemCall& call) {
            return call.number == number ? EINVAL : 0;
        };
        EXPECT_TRUE(ended(trace(device(), create_words, fail), 71)) << number;
    }
    EXPECT_FALSE(device().exists("/run/ad-mounter"));
}

// Neither descriptors that leaked into the run nor its working directory keep
// the mount busy.
TEST_F(Start, UnmountIsNotHeldUpByTheCallersFiles) {
    device().make_layout();
    device().put_image(stored_image, "1.0");
    ASSERT_TRUE(ended(device().run(mount_words), 0));
    const auto use = [] {
        for (int i = 0; i < 100; ++i) {
            (void)!open(mounted_library, O_RDONLY);
        }
        (void)!chdir(mount_point);
    };
    EXPECT_TRUE(ended(device().run(umount_words, use), 0));
}

TEST_F(Start, SmallFileLimitAndClosedPipeAreReportedNotFatal) {
    device().make_layout();
    device().put_tree(mount_point, "1.0");
    const auto limit = [] {
        const rlimit size = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &size);
        int ends[2];
        (void)!pipe(ends);
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
        signal(SIGPIPE, SIG_DFL);
    };
    EXPECT_EQ(device().run(library_words, limit).status, 74);
    EXPECT_EQ(device().run({"--frobnicate"}, limit).status, 64);
    EXPECT_TRUE(device().is_clean());
}

class SetUserId : public DeviceTest {
protected:
    void prepare() override {
        device().give("/tool/ad-mounter", 0, group);
        device().set_mode("/tool/ad-mounter", 04750);
    }
    static BeforeExec become(gid_t own_group) {
        return [own_group] {
            if (setgroups(0, nullptr) != 0 || setgid(own_group) != 0 || setuid(user) != 0) {
                _exit(125);
            }
        };
    }
    Result run(const Words& words) { return device().run(words, become(group)); }
};

TEST_F(SetUserId, WholeUpdateForAnOrdinaryUsersDaemon) {
    for (const char* name : creations) {
        EXPECT_TRUE(ended(run({"--create", name}), 0)) << name;
    }
    EXPECT_EQ(device().owner(agent_data), "1234:5678 755");
    EXPECT_EQ(device().owner(cache_manifest), "1234:5678 644");
    EXPECT_EQ(device().owner(mount_point), "0:0 755");
    EXPECT_EQ(device().owner(usr_lib), "0:0 755");
    for (const std::string type : {"squashfs", "erofs"}) {
        device().put_image(downloaded_image, "1." + type, type);
        device().give(downloaded_image, user, group);
        device().set_mode(downloaded_image, 0600);
        for (const Words& words : {replace_words, mount_words, library_words, tree_words}) {
            EXPECT_TRUE(ended(run(words), 0)) << words[0];
        }
        EXPECT_TRUE(device().read(agent_library) == device().read(mounted_library));
        EXPECT_EQ(device().snapshot(player_res), device().snapshot(mounted_res));
        EXPECT_EQ(device().owner(agent_library), "0:0 644");
        EXPECT_EQ(device().owner(stored_image), "0:0 644");
        for (const Words& words : {umount_words, Words{"--remove", "remove_player_res_path"},
                                   Words{"--remove", "remove_usr_lib_file"}}) {
            EXPECT_TRUE(ended(run(words), 0)) << words[0];
        }
        EXPECT_TRUE(device().is_clean());
    }
}

TEST_F(SetUserId, OnlyForTheGroupWithRootAndOnesOwnDownload) {
    EXPECT_EQ(device().run({"--help"}, become(group + 1)).status, 126) << "could be executed";
    device().make_layout();
    device().put_image(downloaded_image, "1.0");
    device().give(downloaded_image, user + 1, group);
    EXPECT_TRUE(ended(run(replace_words), 77));
    device().set_mode("/tool/ad-mounter", 0755);
    EXPECT_TRUE(ended(run({"--remove", "remove_usr_lib_path"}), 77));
    EXPECT_FALSE(device().exists(stored_image));
    EXPECT_TRUE(device().exists(usr_lib));
}

// Whatever the caller blocked, a run that waits dies of a signal; but not of its caller's.
TEST_F(SetUserId, SignalsAreSetRightAndNotTheCallers) {
    const int lock = device().hold_lock();
    const pid_t pid = device().start(create_words, [] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        become(group)();
    });
    for (int i = 0; i < 5000 && status_field(pid, "Seccomp") != "2"; ++i) {
        usleep(1000);
    }
    EXPECT_EQ(status_field(pid, "SigBlk"), "0000000000000000");
    EXPECT_EXIT(_exit(setuid(user) == 0 && kill(pid, SIGKILL) != 0 && errno == EPERM ? 0 : 1),
                testing::ExitedWithCode(0), "");
    usleep(100'000);
    EXPECT_FALSE(device().exists(usr_lib)) << "did not wait";
    kill(pid, SIGTERM);
    close(lock);
    EXPECT_EQ(device().wait_for(pid).status, -SIGTERM);
}

TEST_F(Start, WaitsForTheLockThirtySecondsAtMost) {
    const int lock = device().hold_lock();
    uint64_t patience = 0;
    const auto shorten = [&](const SystemCall& call) {
        if (call.number == SYS_alarm && call.arguments[0] != 0) {
            patience = call.arguments[0];
        } else if (call.number == SYS_flock && patience != 0) {
            kill(call.process, SIGALRM);
        }
        return 0;
    };
    EXPECT_TRUE(ended(trace(device(), create_words, shorten), 75));
    EXPECT_EQ(patience, 30U);
    EXPECT_FALSE(device().exists(usr_lib));
    close(lock);
}

TEST_F(Start, LockIsInADirectoryThatIsRootsAlone) {
    EXPECT_TRUE(ended(device().run(create_words), 0));
    EXPECT_EQ(device().owner("/run/ad-mounter"), "0:0 700");
    for (const auto& [owner, mode] : {std::pair(0U, 0755), std::pair(user, 0700)}) {
        device().give("/run/ad-mounter", owner, 0);
        device().set_mode("/run/ad-mounter", static_cast<mode_t>(mode));
        EXPECT_TRUE(ended(device().run({"--create", "create_path_zeladagent"}), 77));
    }
    EXPECT_FALSE(device().exists("/opt/down"));
}

}  // namespace
}  // namespace mounter_test
