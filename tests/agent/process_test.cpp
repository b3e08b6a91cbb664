// A transfer's process and its host: what each leaves of the other.
#include "device.h"

#include <csignal>
#include <functional>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::HasSubstr;
using testing::Not;

std::vector<pid_t> children_of(pid_t process) {
    const std::string id = std::to_string(process);
    std::istringstream list(read_file("/proc/" + id + "/task/" + id + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; list >> child;) children.push_back(child);
    return children;
}

const std::set<std::string> PART = {"zelADAgent.img.part", "zelADAgent.img.validator"};

class TransferProcess : public Device {
protected:
    TransferProcess() {
        server.publish("1.06", large_image());
        server.set_faults("/images/* stall 100000");
        server.take_requests();
    }

    /** Waits until a download hangs. */
    void wait_for_download() const {
        for (int tries = 0; tries < 500; ++tries) {
            std::error_code missing;
            if (std::filesystem::file_size(data + "/zelADAgent.img.part", missing) >= 100000 &&
                !missing)
                return;
            usleep(10000);
        }
    }

    /** Forks a process that acts on this one as soon as its download hangs. */
    pid_t meanwhile(const std::function<void(pid_t host)>& act) const {
        const pid_t host = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            wait_for_download();
            act(host);
            _exit(0);
        }
        return pid;
    }
};

TEST_F(TransferProcess, MayBeKilled) {
    const pid_t helper = meanwhile([this](pid_t host) {
        for (const pid_t child : children_of(host))
            if (child != getpid() && child != server.pid()) kill(child, SIGKILL);
    });
    EXPECT_FALSE(update("1.05"));
    waitpid(helper, nullptr, 0);
    EXPECT_THAT(output(), HasSubstr("its process was killed by signal 9"));
    EXPECT_EQ(image_files(), PART);
}

volatile sig_atomic_t stop_signals = 0;

TEST_F(TransferProcess, EndsWhenItsHostIsToldToStop) {
    signal(SIGTERM, [](int) { stop_signals = stop_signals + 1; });
    const pid_t helper = meanwhile([](pid_t host) { kill(host, SIGTERM); });
    EXPECT_FALSE(update("1.05"));
    waitpid(helper, nullptr, 0);
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(stop_signals, 1);
    EXPECT_THAT(output(), HasSubstr("interrupted by a signal"));
    EXPECT_EQ(image_files(), PART);
    EXPECT_EQ(children_of(getpid()), std::vector<pid_t>{server.pid()});
}

TEST_F(TransferProcess, IsNotConfusedByAHandlerForChildren) {
    server.set_faults("");
    signal(SIGCHLD, SIG_IGN);
    EXPECT_TRUE(update("1.05")) << output();

    signal(SIGCHLD, [](int) {});
    server.set_faults("/images/* stall 100000");
    configure(server.url(), "image=1");
    std::filesystem::remove(data + "/zelADAgent.img");
    const pid_t other = meanwhile([](pid_t) {});  // ends in the middle of the download
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("timed out"));
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(TransferProcess, IsEndedWhenItHangsWhereItCannotKnow) {
    std::filesystem::create_directory(folder / "web");
    ASSERT_EQ(mkfifo((folder / "web/update.ini").c_str(), 0600), 0);
    configure("file://" + (folder / "web"), "document=1");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("web/update.ini: not done within 3 seconds"));
    EXPECT_EQ(children_of(getpid()), std::vector<pid_t>{server.pid()});
}

TEST_F(TransferProcess, DiesWithItsHost) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t host = fork();
    if (host == 0) {
        agent.update("1.05");
        _exit(0);
    }
    wait_for_download();
    const std::vector<pid_t> orphans = children_of(host);
    EXPECT_EQ(orphans.size(), 1U);
    kill(host, SIGKILL);
    waitpid(host, nullptr, 0);
    for (const pid_t orphan : orphans) {
        int status = 0;
        EXPECT_EQ(waitpid(orphan, &status, 0), orphan);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    }

    // What is left of it goes with the next update that has no use for it.
    EXPECT_EQ(image_files(), PART);
    EXPECT_FALSE(update("1.06"));
    EXPECT_TRUE(image_files().empty());
}

TEST_F(TransferProcess, LeavesNothingInItsHost) {
    server.set_faults("");
    update("1.06");  // whatever a first use takes for good
    const auto descriptors = names_in("/proc/self/fd");
    testing::internal::CaptureStdout();
    printf("written before, once\n");

    EXPECT_TRUE(agent.update("1.05"));
    server.set_faults("/images/* cut 0");
    std::filesystem::remove(data + "/zelADAgent.img");
    EXPECT_FALSE(agent.update("1.05"));

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "written before, once\n");
    EXPECT_EQ(names_in("/proc/self/fd").size(), descriptors.size());
    EXPECT_EQ(children_of(getpid()), std::vector<pid_t>{server.pid()});
    EXPECT_THAT(read_file("/proc/self/maps"), Not(HasSubstr("libcurl")));
}

}  // namespace
