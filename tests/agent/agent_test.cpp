// Fetching and updating against a real server, which may misbehave.
#include "device.h"

#include <chrono>
#include <cstring>

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Device, KeepsConfigurationDocumentsAndTheLastGoodOne) {
    server.serve("/TileAd/v2", R"({"tiles": 4})");
    server.serve("/AppsAd/v2", " {}\n");
    EXPECT_TRUE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output(), HasSubstr("kept as " + data + "/TileAd-v2.json, 12 bytes\n"));
    EXPECT_TRUE(fetch_configuration("/AppsAd/v2"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/TileAd/v2", "/AppsAd/v2"));

    struct Case {
        const char* fault;
        const char* reason;
    };
    for (const Case& c : {Case{"* login", "not a JSON object"},
                          {"* status 404", "404"},
                          {"* status 204", "status 204"},
                          {"* garbage", "HTTP/0.9"},
                          {"* endless", "more than it should"},
                          {"* cut 5", "7 bytes remaining"},
                          {"* redirect", "redirect"}}) {
        server.set_faults(c.fault);
        EXPECT_FALSE(fetch_configuration("/TileAd/v2")) << c.fault;
        EXPECT_THAT(output(), HasSubstr(c.reason)) << c.fault;
        EXPECT_EQ(output_lines(), 1) << output();
    }
    server.set_faults("");
    for (const char* content : {"", "{", "[]", "{\xff}"}) {
        server.serve("/TileAd/v2", content);
        EXPECT_FALSE(fetch_configuration("/TileAd/v2")) << content;
    }
    server.take_requests();
    EXPECT_FALSE(fetch_configuration("/../secret"));
    EXPECT_THAT(server.take_requests(), IsEmpty());

    EXPECT_EQ(read_file(data + "/TileAd-v2.json"), R"({"tiles": 4})");
    EXPECT_EQ(read_file(data + "/AppsAd-v2.json"), " {}\n");
    EXPECT_EQ(names_in(data), (std::set<std::string>{"TileAd-v2.json", "AppsAd-v2.json"}));
}

TEST_F(Device, DownloadsAnImageOnlyWhenItIsNewer) {
    server.publish("1.06", large_image());
    for (const char* installed : {"1.06", "1.060", "1.1", "2"}) {
        EXPECT_FALSE(update(installed)) << installed;
        EXPECT_THAT(output(), HasSubstr("1.06 is not newer than")) << output();
        EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini"));
    }
    EXPECT_THAT(names_in(data), IsEmpty());

    EXPECT_TRUE(update("1.05"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini", "/images/zelADAgent-1.06.img"));
    EXPECT_TRUE(image() == large_image());
    EXPECT_EQ(names_in(data), std::set<std::string>{"zelADAgent.img"});

    // Nobody took it away: there is no need to fetch it again.
    EXPECT_TRUE(update("0.00"));
    EXPECT_THAT(output(), HasSubstr("version 1.06 is already at"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini"));

    server.publish("1.07", "small");
    EXPECT_TRUE(update("1.06"));
    EXPECT_EQ(image(), "small");
}

TEST_F(Device, TakesAFolderForAServer) {
    server.publish("1.06", large_image());
    write_file(folder / "web/update.ini", "");
    configure("file://" + (folder / "web"));
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("/web/update.ini: [image] version is not"));
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output(), HasSubstr("Couldn't open file"));
    EXPECT_THAT(server.take_requests(), IsEmpty());
    EXPECT_THAT(names_in(data), IsEmpty());
}

class BadServer : public Device {
protected:
    BadServer() {
        write_file(data + "/zelADAgent.img", "an old download");
        server.publish("1.06", large_image());
    }

    void expect_refusal(const std::string& reason) {
        EXPECT_FALSE(update("1.05"));
        EXPECT_THAT(output(), HasSubstr(reason));
        EXPECT_EQ(output_lines(), output().find("downloading") == std::string::npos ? 1 : 2);
        EXPECT_EQ(image(), "an old download");
        EXPECT_EQ(names_in(data), std::set<std::string>{"zelADAgent.img"});
    }
};

TEST_F(BadServer, CostsOneLineAndNothingElse) {
    struct Case {
        const char* fault;
        const char* reason;
    };
    for (const Case& c : {Case{"/update.ini status 404", "update.ini: The requested URL returned"},
                          {"/update.ini status 500", "500"},
                          {"/update.ini redirect", "redirects"},
                          {"/update.ini garbage", "HTTP/0.9"},
                          {"/update.ini login", "not a key-value pair"},
                          {"/update.ini endless", "more than it should"},
                          {"/update.ini cut 20", "bytes remaining"},
                          {"/update.ini declare 60", "[image] sha256 is not"},
                          {"/images/* status 404", "1.06.img: The requested URL returned"},
                          {"/images/* redirect", "redirects"},
                          {"/images/* login", "61 bytes, the index says 400000"},
                          {"/images/* endless", "more than it should"},
                          {"/images/* cut 300000", "100000 bytes remaining"},
                          {"/images/* declare 300000", "300000 bytes, the index says 400000"},
                          {"/images/* declare 500000", "100000 bytes remaining"}}) {
        SCOPED_TRACE(c.fault);
        server.set_faults(c.fault);
        expect_refusal(c.reason);
    }
}

TEST_F(BadServer, MayNotLieAboutTheImage) {
    server.publish("1.06", large_image(), std::string(64, 'a'));
    expect_refusal("not the index's");
    server.publish("1.06", large_image(), "", "400001");
    expect_refusal("400000 bytes, the index says 400001");
    server.publish("1.06", large_image(), "", "399999");
    expect_refusal("more than it should");
}

TEST_F(BadServer, IsNotWaitedForLongerThanConfigured) {
    struct Case {
        const char* fault;
        const char* timeouts;
        const char* reason;
    };
    for (const Case& c : {Case{"/update.ini stall 10", "stall=1", "no byte in 1 seconds"},
                          {"/update.ini slow 10", "document=1", "timed out"},
                          {"/images/* stall 200000", "stall=1", "no byte in 1 seconds"},
                          {"/images/* slow 20000", "image=1", "timed out"}}) {
        SCOPED_TRACE(c.fault);
        server.set_faults(c.fault);
        configure(server.url(), c.timeouts);
        const auto start = std::chrono::steady_clock::now();
        expect_refusal(c.reason);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    }
    configure("http://127.0.0.1:1");
    expect_refusal("http://127.0.0.1:1/update.ini: Failed to connect");
}

TEST_F(Device, NamesWhatIsMissingHere) {
    server.publish("1.06", "image");
    server.serve("/TileAd/v2", "{}");
    std::filesystem::remove(data);
    EXPECT_FALSE(update("1.05"));
    EXPECT_EQ(output(), "ad-agent: update: cannot open data folder " + data +
                            ": No such file or directory\n");
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_FALSE(agent.set_version("1.05"));
    EXPECT_EQ(agent.version(), "0.00");

    write_file(folder / "agent.conf", "[server]\n");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("update: configuration " + (folder / "agent.conf: [server]")));
    std::filesystem::remove(folder / "agent.conf");
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output(), HasSubstr("agent.conf: No such file"));
    EXPECT_THAT(server.take_requests(), IsEmpty());
}

class OtherFileSystem : public Device {
protected:
    /** Mounts a small file system over the data folder, seen by this process alone. */
    bool mount_over_data(unsigned long flags) {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("none", data.c_str(), "tmpfs", flags, "size=128k") == 0;
    }
    ~OtherFileSystem() override { umount2(data.c_str(), MNT_DETACH); }
};

TEST_F(OtherFileSystem, ThatIsFullKeepsWhatItHas) {
    if (!mount_over_data(0)) GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    ASSERT_TRUE(agent.set_version("1.05"));
    write_file(data + "/zelADAgent.img", "an old download");
    server.publish("1.06", large_image());
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("cannot write: No space left on device"));
    EXPECT_EQ(image(), "an old download");
    EXPECT_EQ(names_in(data), (std::set<std::string>{"zelADAgent.img", "zelADAgentCache.xml"}));

    write_file(data + "/filler", std::string(200000, 'x'));
    server.serve("/TileAd/v2", "{" + std::string(8192, ' ') + "}");
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output(), HasSubstr("No space left on device"));
    EXPECT_FALSE(agent.set_version("1.06"));
    EXPECT_EQ(agent.version(), "1.05");
}

TEST_F(OtherFileSystem, ThatIsReadOnlyIsNamed) {
    if (!mount_over_data(MS_RDONLY)) GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    server.publish("1.06", "image");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(),
                HasSubstr("cannot create " + data + "/zelADAgent.img.part: Read-only file system"));
}

}  // namespace
