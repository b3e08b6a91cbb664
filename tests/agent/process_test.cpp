// A transfer's process and its host: what each leaves of the other.
#include "device.h"

#include <functional>

#include <sys/stat.h>

namespace {

using testing::HasSubstr;
using testing::Not;

using Processes = std::vector<pid_t>;

Processes children_of(pid_t process) {
    const std::string id = std::to_string(process);
    std::istringstream list(read_file("/proc/" + id + "/task/" + id + "/children"));
    Processes children;
    for (pid_t child = 0; list >> child;) children.push_back(child);
    return children;
}

const Names PART = {"zelADAgent.img.part", "zelADAgent.img.validator"};
constexpr char HANGING[] = "/images/* stall 100000";

class TransferProcess : public Device {
protected:
    TransferProcess() {
        server.publish("1.06", large_image());
        server.set_faults(HANGING);
    }

    /** Updates in vain, while another process acts on this one when the download hangs. */
    void expect_failure(const std::function<void(pid_t host)>& act, const std::string& reason) {
        const pid_t host = getpid();
        const pid_t helper = fork();
        if (helper == 0) {
            await_part(100000);
            act(host);
            _exit(0);
        }
        EXPECT_FALSE(update("1.05"));
        EXPECT_EQ(waitpid(helper, nullptr, 0), helper);
        EXPECT_THAT(output, HasSubstr(reason));
        EXPECT_EQ(image_files(), PART);
        EXPECT_EQ(children_of(host), Processes{server.pid()});
    }
};

TEST_F(TransferProcess, MayBeKilled) {
    const auto kill_children = [this](pid_t host) {
        for (const pid_t child : children_of(host))
            if (child != getpid() && child != server.pid()) kill(child, SIGKILL);
    };
    expect_failure(kill_children, "its process was killed by signal 9");
}

volatile sig_atomic_t stop_signals = 0;

TEST_F(TransferProcess, EndsWhenItsHostIsToldToStop) {
    signal(SIGTERM, [](int) { stop_signals = stop_signals + 1; });
    expect_failure([](pid_t host) { kill(host, SIGTERM); }, "interrupted by a signal");
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(stop_signals, 1);
}

TEST_F(TransferProcess, IsNotConfusedByAHandlerForChildren) {
    signal(SIGCHLD, [](int) {});
    configure(server.url(), "[timeouts]\nimage=1\n");
    // The other process ends in the middle of the download.
    expect_failure([](pid_t) {}, "timed out");

    signal(SIGCHLD, SIG_IGN);
    server.set_faults("");
    EXPECT_TRUE(update("1.05")) << output;
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(TransferProcess, IsEndedWhenItHangsWhereItCannotKnow) {
    std::filesystem::create_directory(folder / "web");
    ASSERT_EQ(mkfifo((folder / "web/update.ini").c_str(), 0600), 0);
    configure("file://" + (folder / "web"), "[timeouts]\ndocument=1\n");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output, HasSubstr("web/update.ini: not done within 3 seconds"));
    EXPECT_EQ(children_of(getpid()), Processes{server.pid()});
}

TEST_F(TransferProcess, DiesWithItsHost) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t host = fork();
    if (host == 0) {
        agent.update("1.05");
        _exit(0);
    }
    await_part(100000);
    const Processes orphans = children_of(host);
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
    const std::size_t descriptors = names_in("/proc/self/fd").size();
    testing::internal::CaptureStdout();
    printf("written before, once\n");

    EXPECT_TRUE(agent.update("1.05"));
    server.set_faults("/images/* cut 0");
    remove("zelADAgent.img");
    EXPECT_FALSE(agent.update("1.05"));

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "written before, once\n");
    EXPECT_EQ(names_in("/proc/self/fd").size(), descriptors);
    EXPECT_EQ(children_of(getpid()), Processes{server.pid()});
    EXPECT_THAT(read_file("/proc/self/maps"), Not(HasSubstr("libcurl")));
}

}  // namespace
