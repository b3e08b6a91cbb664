// Downloads that are cut, and go on; and what their processes leave of each other.
#include "device.h"

#include <functional>

#include <sys/prctl.h>
#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Processes = std::vector<pid_t>;

const std::string PATH = "/images/zelADAgent-1.06.img";
constexpr std::size_t TENTH = 40000;

Processes children_of(pid_t process) {
    const std::string id = std::to_string(process);
    std::istringstream list(read_file("/proc/" + id + "/task/" + id + "/children"));
    return Processes(std::istream_iterator<pid_t>(list), {});
}

class Download : public Device {
protected:
    /** Waits until so many bytes of an image have come. */
    void await_part(std::size_t bytes) const {
        for (int tries = 0; tries < 5000 && read_file(part).size() < bytes; ++tries) usleep(1000);
    }

    /** Kills a host in the middle of a new download, when so many bytes have come. */
    void kill_at(std::size_t bytes) {
        remove("zelADAgent.img");
        remove("zelADAgent.img.part");
        server.set_faults("/images/* stall " + std::to_string(bytes));
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const pid_t host = fork();
        if (host == 0) {
            agent.update("1.05");
            _exit(0);
        }
        await_part(bytes);
        const Processes transfers = children_of(host);
        kill(host, SIGKILL);
        waitpid(host, nullptr, 0);
        // The transfer dies with it.
        ASSERT_EQ(transfers.size(), 1U);
        int status = 0;
        EXPECT_EQ(waitpid(transfers[0], &status, 0), transfers[0]);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        server.set_faults("");
        server.take_requests();
    }

    /** Updates to the end. @return how the image was asked for */
    std::vector<std::string> complete() {
        expect_update("1.05", IMAGE);
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
        EXPECT_FALSE(std::filesystem::exists(data + "/update.ini.part"));
        std::vector<std::string> requests = server.take_requests();
        requests.erase(requests.begin());  // of the index
        return requests;
    }

    /** Updates in vain, while another process acts on this one when the download hangs. */
    void expect_failure(const std::function<void(pid_t host)>& act, const std::string& reason) {
        remove("zelADAgent.img.part");
        server.set_faults("/images/* stall 40000");
        const pid_t host = getpid();
        const pid_t helper = fork();
        if (helper == 0) {
            await_part(TENTH);
            act(host);
            _exit(0);
        }
        expect_no_update("1.05", reason);
        EXPECT_EQ(waitpid(helper, nullptr, 0), helper);
        EXPECT_EQ(image_files(), (Names{"zelADAgent.img.part", "zelADAgent.img.validator"}));
        EXPECT_EQ(children_of(host).size(), 1U);  // the server
    }
};

TEST_F(Download, GoesOnWhereTheHostWasKilled) {
    for (const std::size_t bytes : {TENTH, 9 * TENTH}) {
        kill_at(bytes);
        write_file(data + "/update.ini.part", "of a kill somewhere else");
        EXPECT_THAT(complete(), ElementsAre(PATH + " from " + std::to_string(bytes)));
        EXPECT_THAT(output, HasSubstr("resuming after " + std::to_string(bytes)));
    }
    kill_at(TENTH);
    expect_no_update("1.06", "not newer");
    EXPECT_THAT(image_files(), IsEmpty());
}

TEST_F(Download, GoesOnWithinOneUpdateAsLongAsBytesCome) {
    server.set_faults("/images/* cut " + std::to_string(TENTH));
    const auto requests = complete();
    ASSERT_EQ(requests.size(), 10U);
    EXPECT_EQ(requests[9], PATH + " from 360000");

    remove("zelADAgent.img");
    server.set_faults("/images/* cut 1");
    EXPECT_FALSE(update("1.05"));
    EXPECT_EQ(server.take_requests().size(), 51U);  // of the index and the image
}

TEST_F(Download, StartsAnewWhenTheFileHasChanged) {
    kill_at(TENTH);
    server.publish("1.06", "another image");
    expect_update("1.05", "another image");
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini", PATH));

    // The server takes it for another one, or for one that it cannot tell from another.
    server.publish("1.06", IMAGE);
    kill_at(TENTH);
    const std::string validator = read_file(data + "/zelADAgent.img.validator");
    const std::string source = validator.substr(0, validator.find('\n'));
    for (const std::string& changed : {source + "\n\"another\"\n", "W/" + validator}) {
        kill_at(TENTH);
        write_file(data + "/zelADAgent.img.validator", changed);
        EXPECT_THAT(complete(), ElementsAre(PATH));
    }
    for (const char* fault : {"norange", "noetag"}) {
        kill_at(TENTH);
        server.set_faults(std::string("/images/* ") + fault);
        EXPECT_THAT(complete(), ElementsAre(PATH));
    }
}

TEST_F(Download, DoesNotTrustWhatWasKept) {
    kill_at(9 * TENTH);
    std::string bytes = read_file(part);
    bytes[1000] ^= 1;
    write_file(part, bytes);
    EXPECT_THAT(complete(), ElementsAre(PATH + " from 360000", PATH));
    EXPECT_THAT(output, HasSubstr("the partial download is corrupt"));

    // All of it came before the kill, and more than all of it.
    for (const char* more : {"", "x"}) {
        kill_at(TENTH);
        write_file(part, IMAGE + more);
        EXPECT_EQ(complete().size(), *more == '\0' ? 0U : 1U);
    }

    // A login page in between does not cost what is there.
    kill_at(TENTH);
    for (const char* fault : {"shift 10", "status 200", "status 500"}) {
        server.set_faults(std::string("/images/* ") + fault);
        EXPECT_FALSE(update("1.05")) << fault;
        EXPECT_EQ(read_file(part).size(), TENTH) << fault;
    }
    server.set_faults("");
    server.take_requests();
    EXPECT_THAT(complete(), ElementsAre(PATH + " from 40000"));
}

TEST_F(Download, VerifiesHttpsServers) {
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test"
        " -addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out cert.pem"
        " && cat key.pem cert.pem >server.pem";
    ASSERT_EQ(run_in(folder / "", make, output), 0) << output;
    const ContentServer secure("https://", {"--certificate", folder / "server.pem"});
    secure.publish("1.06", IMAGE);

    configure(secure.url);
    expect_no_update("1.05", "certificate");
    EXPECT_THAT(secure.take_requests(), IsEmpty());
    for (const std::string& line :
         {std::string("verify=false"), "authorities=" + folder / "cert.pem"}) {
        configure(secure.url, line + "\n");
        remove("zelADAgent.img");
        expect_update("1.05", IMAGE);
    }
}

volatile sig_atomic_t stop_signals = 0;

TEST_F(Download, TellsWhatEndedIt) {
    // The youngest child is the transfer's process.
    expect_failure([](pid_t host) { kill(children_of(host).back(), SIGKILL); },
                   "transfer process killed by signal 9");

    signal(SIGTERM, [](int) { stop_signals = stop_signals + 1; });
    expect_failure([](pid_t host) { kill(host, SIGTERM); }, "interrupted by a signal");
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(stop_signals, 1);
}

TEST_F(Download, IsNotConfusedByAHandlerForChildren) {
    signal(SIGCHLD, [](int) {});
    configure(server.url, "[timeouts]\nimage=1\n");
    // The other process ends in the middle of the download.
    expect_failure([](pid_t) {}, "timed out");

    signal(SIGCHLD, SIG_IGN);
    server.set_faults("");
    EXPECT_TRUE(update("1.05")) << output;
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(Download, IsEndedWhenItHangsWhereItCannotKnow) {
    std::filesystem::create_directory(folder / "web");
    ASSERT_EQ(mkfifo((folder / "web/update.ini").c_str(), 0600), 0);
    configure("file://" + folder / "web", "[timeouts]\ndocument=1\n");
    expect_no_update("1.05", "web/update.ini: no result within 3 seconds");
    EXPECT_EQ(children_of(getpid()).size(), 1U);
}

TEST_F(Download, LeavesNothingInItsHost) {
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
    EXPECT_EQ(children_of(getpid()).size(), 1U);
    EXPECT_THAT(read_file("/proc/self/maps"), Not(HasSubstr("libcurl")));
}

}  // namespace
