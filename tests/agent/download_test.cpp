// Downloads that are cut, and go on.
#include "device.h"

#include <csignal>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char PATH[] = "/images/zelADAgent-1.06.img";
constexpr std::size_t TENTH = 40000;

class Download : public Device {
protected:
    Download() { server.publish("1.06", large_image()); }

    std::string part() const { return data + "/zelADAgent.img.part"; }

    /** Kills a process in the middle of a download, when so many bytes have come. */
    void kill_at(std::size_t bytes) {
        server.set_faults("/images/* stall " + std::to_string(bytes));
        const pid_t host = fork();
        if (host == 0) {
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            agent.update("1.05");
            _exit(0);
        }
        std::error_code missing;
        for (int tries = 0; tries < 5000; ++tries) {
            if (std::filesystem::file_size(part(), missing) >= bytes && !missing) break;
            usleep(1000);
        }
        kill(host, SIGKILL);
        waitpid(host, nullptr, 0);
        server.set_faults("");
        server.take_requests();
    }

    /** Updates to the end. @return how the image was asked for */
    std::vector<std::string> complete() {
        EXPECT_TRUE(update("1.05")) << output();
        EXPECT_TRUE(image() == large_image());
        EXPECT_EQ(image_files(), std::set<std::string>{"zelADAgent.img"});
        EXPECT_FALSE(std::filesystem::exists(data + "/update.ini.part"));
        std::vector<std::string> requests = server.take_requests();
        requests.erase(requests.begin());  // of the index
        return requests;
    }
};

TEST_F(Download, GoesOnWhereTheHostWasKilled) {
    for (std::size_t bytes = TENTH; bytes < large_image().size(); bytes += TENTH) {
        SCOPED_TRACE(bytes);
        kill_at(bytes);
        write_file(data + "/update.ini.part", "of a kill somewhere else");
        EXPECT_THAT(complete(), ElementsAre(PATH + (" from " + std::to_string(bytes))));
        EXPECT_THAT(output(), HasSubstr("going on after " + std::to_string(bytes)));
        std::filesystem::remove(data + "/zelADAgent.img");
    }
}

TEST_F(Download, GoesOnWithinOneUpdateAsLongAsBytesCome) {
    server.set_faults("/images/* cut " + std::to_string(TENTH));
    const auto requests = complete();
    ASSERT_EQ(requests.size(), 10U);
    EXPECT_EQ(requests[9], PATH + std::string(" from 360000"));

    std::filesystem::remove(data + "/zelADAgent.img");
    server.set_faults("/images/* cut 1");
    EXPECT_FALSE(update("1.05"));
    EXPECT_LE(server.take_requests().size(), 60U);
}

TEST_F(Download, StartsAnewWhenTheFileHasChanged) {
    kill_at(TENTH);
    server.publish("1.06", std::string(300000, 'y'));
    EXPECT_TRUE(update("1.05")) << output();
    EXPECT_EQ(image(), std::string(300000, 'y'));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini", PATH));
    std::filesystem::remove(data + "/zelADAgent.img");

    // The server takes it for another one, or for one that it cannot tell from another.
    server.publish("1.06", large_image());
    kill_at(TENTH);
    const std::string validator = read_file(data + "/zelADAgent.img.validator");
    write_file(data + "/zelADAgent.img.validator",
               validator.substr(0, validator.find('\n')) + "\n\"another\"\n");
    EXPECT_THAT(complete(), ElementsAre(PATH));
    std::filesystem::remove(data + "/zelADAgent.img");

    kill_at(TENTH);
    write_file(data + "/zelADAgent.img.validator", "W/" + validator);
    EXPECT_THAT(complete(), ElementsAre(PATH));
    std::filesystem::remove(data + "/zelADAgent.img");

    kill_at(TENTH);
    server.set_faults("/images/* norange");
    EXPECT_THAT(complete(), ElementsAre(PATH));
}

TEST_F(Download, WithoutAnETagStartsAnew) {
    server.set_faults("/images/* noetag");
    write_file(part(), large_image().substr(0, TENTH));
    EXPECT_THAT(complete(), ElementsAre(PATH));
}

TEST_F(Download, DoesNotTrustWhatWasKept) {
    kill_at(9 * TENTH);
    std::string bytes = read_file(part());
    bytes[1000] ^= 1;
    write_file(part(), bytes);
    EXPECT_THAT(complete(), ElementsAre(PATH + std::string(" from 360000"), PATH));
    EXPECT_THAT(output(), HasSubstr("what was kept is not the image"));
    std::filesystem::remove(data + "/zelADAgent.img");

    // All of it came before the kill, and more than all of it.
    for (const char* more : {"", "x"}) {
        kill_at(TENTH);
        write_file(part(), large_image() + more);
        EXPECT_EQ(complete().size(), *more == '\0' ? 0U : 1U);
        std::filesystem::remove(data + "/zelADAgent.img");
    }

    // A login page in between does not cost what is there.
    kill_at(TENTH);
    for (const char* fault : {"/images/* shift 10", "/images/* login", "/images/* status 500"}) {
        server.set_faults(fault);
        EXPECT_FALSE(update("1.05")) << fault;
        EXPECT_EQ(read_file(part()).size(), TENTH) << fault;
    }
    server.set_faults("");
    server.take_requests();
    EXPECT_THAT(complete(), ElementsAre(PATH + std::string(" from 40000")));
}

TEST_F(Download, VerifiesHttpsServers) {
    const std::string certificate = folder / "server.pem";
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 "
        "-nodes -subj /CN=test -addext subjectAltName=IP:127.0.0.1 -keyout " +
        certificate + " -out " + (folder / "cert.pem") + " 2>/dev/null && cat " +
        (folder / "cert.pem") + " >>" + certificate;
    ASSERT_EQ(system(make.c_str()), 0);
    const ContentServer secure(certificate);
    secure.publish("1.06", large_image());

    const auto configure_with = [&](const std::string& line) {
        write_file(folder / "agent.conf", "[server]\nurl=" + secure.url() + "\n" + line + "\n");
    };
    configure_with("");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("certificate"));
    EXPECT_THAT(secure.take_requests(), ElementsAre());
    configure_with("verify=false");
    EXPECT_TRUE(update("1.05")) << output();
    std::filesystem::remove(data + "/zelADAgent.img");
    configure_with("authorities=" + (folder / "cert.pem"));
    EXPECT_TRUE(update("1.05")) << output();
    EXPECT_TRUE(image() == large_image());
}

}  // namespace
