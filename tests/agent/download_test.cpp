// Downloads that are cut, and go on.
#include "device.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char PATH[] = "/images/zelADAgent-1.06.img";
constexpr std::size_t TENTH = 40000;

class Download : public Device {
protected:
    Download() { server.publish("1.06", large_image()); }

    /** Kills a process in the middle of a new download, when so many bytes have come. */
    void kill_at(std::size_t bytes) {
        remove("zelADAgent.img");
        server.set_faults("/images/* stall " + std::to_string(bytes));
        const pid_t host = fork();
        if (host == 0) {
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
            agent.update("1.05");
            _exit(0);
        }
        await_part(bytes);
        kill(host, SIGKILL);
        waitpid(host, nullptr, 0);
        server.set_faults("");
        server.take_requests();
    }

    /** Updates to the end. @return how the image was asked for */
    std::vector<std::string> complete() {
        EXPECT_TRUE(update("1.05")) << output;
        EXPECT_TRUE(image() == large_image());
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
        EXPECT_FALSE(std::filesystem::exists(data + "/update.ini.part"));
        std::vector<std::string> requests = server.take_requests();
        requests.erase(requests.begin());  // of the index
        return requests;
    }
};

TEST_F(Download, GoesOnWhereTheHostWasKilled) {
    for (const std::size_t bytes : {TENTH, 5 * TENTH, 9 * TENTH}) {
        kill_at(bytes);
        write_file(data + "/update.ini.part", "of a kill somewhere else");
        EXPECT_THAT(complete(), ElementsAre(PATH + (" from " + std::to_string(bytes))));
        EXPECT_THAT(output, HasSubstr("going on after " + std::to_string(bytes)));
    }
}

TEST_F(Download, GoesOnWithinOneUpdateAsLongAsBytesCome) {
    server.set_faults("/images/* cut " + std::to_string(TENTH));
    const auto requests = complete();
    ASSERT_EQ(requests.size(), 10U);
    EXPECT_EQ(requests[9], PATH + std::string(" from 360000"));

    remove("zelADAgent.img");
    server.set_faults("/images/* cut 1");
    EXPECT_FALSE(update("1.05"));
    EXPECT_LE(server.take_requests().size(), 60U);
}

TEST_F(Download, StartsAnewWhenTheFileHasChanged) {
    kill_at(TENTH);
    server.publish("1.06", std::string(300000, 'y'));
    EXPECT_TRUE(update("1.05")) << output;
    EXPECT_EQ(image(), std::string(300000, 'y'));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini", PATH));

    // The server takes it for another one, or for one that it cannot tell from another.
    server.publish("1.06", large_image());
    kill_at(TENTH);
    const std::string validator = read_file(data + "/zelADAgent.img.validator");
    const std::string source = validator.substr(0, validator.find('\n'));
    for (const std::string& changed : {source + "\n\"another\"\n", "W/" + validator}) {
        kill_at(TENTH);
        write_file(data + "/zelADAgent.img.validator", changed);
        EXPECT_THAT(complete(), ElementsAre(PATH));
    }
    kill_at(TENTH);
    server.set_faults("/images/* norange");
    EXPECT_THAT(complete(), ElementsAre(PATH));

    kill_at(TENTH);
    server.set_faults("/images/* noetag");
    remove("zelADAgent.img.validator");
    EXPECT_THAT(complete(), ElementsAre(PATH));
}

TEST_F(Download, DoesNotTrustWhatWasKept) {
    kill_at(9 * TENTH);
    std::string bytes = read_file(part);
    bytes[1000] ^= 1;
    write_file(part, bytes);
    EXPECT_THAT(complete(), ElementsAre(PATH + std::string(" from 360000"), PATH));
    EXPECT_THAT(output, HasSubstr("what was kept is not the image"));

    // All of it came before the kill, and more than all of it.
    for (const char* more : {"", "x"}) {
        kill_at(TENTH);
        write_file(part, large_image() + more);
        EXPECT_EQ(complete().size(), *more == '\0' ? 0U : 1U);
    }

    // A login page in between does not cost what is there.
    kill_at(TENTH);
    for (const char* fault :
         {"/images/* shift 10", "/images/* status 200", "/images/* status 500"}) {
        server.set_faults(fault);
        EXPECT_FALSE(update("1.05")) << fault;
        EXPECT_EQ(read_file(part).size(), TENTH) << fault;
    }
    server.set_faults("");
    server.take_requests();
    EXPECT_THAT(complete(), ElementsAre(PATH + std::string(" from 40000")));
}

TEST_F(Download, VerifiesHttpsServers) {
    const std::string make =
        "cd '" + (folder / "") +
        "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test"
        " -addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out cert.pem 2>/dev/null"
        " && cat key.pem cert.pem >server.pem";
    ASSERT_EQ(system(make.c_str()), 0);
    const ContentServer secure(folder / "server.pem");
    secure.publish("1.06", large_image());

    configure(secure.url());
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output, HasSubstr("certificate"));
    EXPECT_THAT(secure.take_requests(), ElementsAre());
    for (const std::string& line :
         {std::string("verify=false"), "authorities=" + (folder / "cert.pem")}) {
        configure(secure.url(), line + "\n");
        remove("zelADAgent.img");
        EXPECT_TRUE(update("1.05")) << output;
        EXPECT_TRUE(image() == large_image());
    }
}

}  // namespace
