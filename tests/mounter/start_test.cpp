// However the process is started, it does the same.

#include "process_start.h"
#include "support/device.h"
#include "support/tracer.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {
namespace {

namespace fs = std::filesystem;

const Words create_words = {"--create", "create_path_usr_lib"};

class Start : public DeviceTest {};

TEST_F(Start, EmptyArgumentVectorIsWrongUsage) {
    RunOptions options;
    options.empty_argument_vector = true;
    const Result result = device().run({}, options);
    EXPECT_EQ(result.status, 64);
    EXPECT_TRUE(is_one_line(result));
}

TEST_F(Start, WrongUsageIsOneLineAndTouchesNothing) {
    const Snapshot before = snapshot(device().at("/opt"));
    for (const Words& words : {Words{}, Words{"--create", "x\ny"}, Words{"--umount", "/"}}) {
        const Result result = device().run(words);
        EXPECT_EQ(result.status, 64);
        EXPECT_TRUE(is_one_line(result));
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(snapshot(device().at("/opt")), before);
    EXPECT_FALSE(device().exists("/run/ad-mounter"));
}

TEST_F(Start, HelpAndVersionTellTheTable) {
    const Result help = device().run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* part : {"--copy_all", "create_file_apps_zeladagent_xml", stored_image,
                             player_library, player_res, "--version"}) {
        EXPECT_NE(help.out.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(device().run({"--version"}).out.find("ad-mounter "), 0U);
    RunOptions full;
    full.before_exec = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    EXPECT_EQ(device().run({"--help"}, full).status, 74);
}

// What the process looks like when it takes the lock, before it touches anything.
TEST_F(Start, ProcessIsInOrderBeforeItBegins) {
    if (!missing_for_tracing().empty()) {
        GTEST_SKIP() << missing_for_tracing();
    }
    RunOptions options;
    options.before_exec = [] {
        (void)!chdir("/home");
        close(0);
        close(1);
        close(2);
    };
    int looked = 0;
    const auto look = [&](const SystemCall& call) -> Decision {
        if (call.number == SYS_flock) {
            const std::string process = "/proc/" + std::to_string(call.process);
            for (const char* descriptor : {"/fd/0", "/fd/1", "/fd/2"}) {
                EXPECT_EQ(fs::read_symlink(process + descriptor), device().at("/dev/null"));
            }
            EXPECT_EQ(fs::read_symlink(process + "/cwd"), device().at(""));
            ++looked;
        }
        return {};
    };
    EXPECT_EQ(trace(device(), create_words, look, options).status, 0);
    EXPECT_EQ(looked, 1);
}

// Whatever is opened while 0 to 2 are free gets one of those numbers, and the
// line about a failure would be written into it.
TEST_F(Start, ClosedDescriptorsCatchNoOutput) {
    RunOptions options;
    options.before_exec = [] {
        close(0);
        close(1);
        close(2);
    };
    EXPECT_EQ(device().run(create_words, options).status, 0);
    EXPECT_TRUE(device().exists(usr_lib));
    device().write(stored_image, "no image");
    EXPECT_EQ(device().run(mount_words, options).status, 65);
    EXPECT_EQ(device().read(stored_image), "no image");
    EXPECT_EQ(device().read("/run/ad-mounter/lock"), "");
}

TEST_F(Start, LeakedDescriptorsDoNotKeepTheMountBusy) {
    device().make_layout();
    device().put_image(stored_image, "1.0");
    ASSERT_EQ(device().run(mount_words).status, 0);
    RunOptions options;
    options.before_exec = [] {
        for (int i = 0; i < 100; ++i) {
            (void)!open((std::string(mount_point) + "/zelADAgent.xml").c_str(), O_RDONLY);
        }
    };
    const Result result = device().run(umount_words, options);
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(Start, AnyWorkingDirectoryWillDo) {
    device().make_layout();
    device().put_image(stored_image, "1.0");
    RunOptions deleted;
    deleted.before_exec = [] {
        mkdir("/home/gone", 0755);
        (void)!chdir("/home/gone");
        rmdir("/home/gone");
    };
    EXPECT_EQ(device().run(mount_words, deleted).status, 0);
    RunOptions inside;
    inside.before_exec = [] { (void)!chdir(mount_point); };
    const Result result = device().run(umount_words, inside);
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(Start, AnyUmaskGivesTheSameModes) {
    for (const mode_t mask : {0000, 0077, 0777}) {
        device().remove("/opt/usr");
        RunOptions options;
        options.before_exec = [mask] { umask(mask); };
        const Words words = {"--create", "create_file_apps_zeladagent_xml"};
        ASSERT_EQ(device().run(words, options).status, 0);
        struct stat status;
        for (const auto& [path, mode] : {std::pair("/opt/usr", 0755), std::pair(agent_data, 0755),
                                         std::pair(cache_manifest, 0644)}) {
            ASSERT_EQ(stat(device().at(path).c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(mode)) << path << ' ' << mask;
        }
        device().remove(mount_point);
        device().put_tree(mount_point, "1.0");
        ASSERT_EQ(device().run(tree_words, options).status, 0);
        EXPECT_EQ(snapshot(device().at(player_res)), snapshot(device().at(tree_words[1])));
    }
}

// Waits for the lock with all signals blocked by the caller; must still die of one.
TEST_F(Start, BlockedAndIgnoredSignalsAreSetRight) {
    device().make_directory("/run/ad-mounter");
    ASSERT_EQ(chmod(device().at("/run/ad-mounter").c_str(), 0700), 0);
    const int lock = open(device().at("/run/ad-mounter/lock").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    RunOptions options;
    options.before_exec = [] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        signal(SIGCHLD, SIG_IGN);
        signal(SIGALRM, SIG_IGN);
        signal(SIGPIPE, SIG_DFL);
    };
    const pid_t pid = fork();
    if (pid == 0) {
        device().execute(create_words, options);
    }
    const std::string status_file = "/proc/" + std::to_string(pid) + "/status";
    std::string blocked;
    for (int i = 0; i < 500 && blocked != "0000000000000000"; ++i) {
        usleep(10'000);
        std::ifstream status(status_file);
        for (std::string word; status >> word;) {
            if (word == "SigBlk:") {
                status >> blocked;
            }
        }
    }
    EXPECT_EQ(blocked, "0000000000000000");
    kill(pid, SIGTERM);
    usleep(100'000);
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    close(lock);
}

TEST_F(Start, SmallFileLimitAndClosedPipeAreReportedNotFatal) {
    device().make_layout();
    device().put_tree(mount_point, "1.0");
    RunOptions options;
    options.before_exec = [] {
        const rlimit limit = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        int ends[2];
        (void)!pipe(ends);
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
    };
    EXPECT_EQ(device().run(library_words, options).status, 74);
    EXPECT_EQ(device().run({"--frobnicate"}, options).status, 64);
    EXPECT_EQ(device().leftovers(), Words());
}

TEST_F(Start, HostileEnvironmentIsIgnored) {
    device().write("/stage/evil.so", "not a library");
    RunOptions options;
#ifdef __SANITIZE_ADDRESS__
    options.environment = {"PATH=/home", "IFS=/"};
#else
    // A dynamic loader would complain about these.
    options.environment = {"LD_PRELOAD=/stage/evil.so",
                           "LD_LIBRARY_PATH=/stage",
                           "LD_AUDIT=/stage/evil.so",
                           "PATH=/home",
                           "IFS=/",
                           "MALLOC_CHECK_=3"};
#endif
    const Result result = device().run(create_words, options);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST(StartOfProcess, ClearsTheEnvironment) {
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("LD_PRELOAD", "/stage/evil.so", 1);
        const bool prepared = ad_mounter::prepare_process().ok();
        _exit(prepared && getenv("LD_PRELOAD") == nullptr && getenv("PATH") == nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace mounter_test
