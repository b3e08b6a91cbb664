// Fetching and updating against a real server, which may misbehave.
#include "device.h"

#include <cstring>

#include <sched.h>
#include <sys/mount.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST_F(Device, KeepsConfigurationDocumentsAndTheLastGoodOne) {
    const std::string kept = R"({"tiles": 4})";
    server.serve("/TileAd/v2", kept);
    server.serve("/AppsAd/v2", " {}\n");
    EXPECT_TRUE(fetch("/TileAd/v2"));
    EXPECT_EQ(output, "ad-agent: configuration document /TileAd/v2: stored as " + data +
                          "/TileAd-v2.json, 12 bytes\n");
    EXPECT_TRUE(fetch("/AppsAd/v2"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/TileAd/v2", "/AppsAd/v2"));

    for (const char* content : {"", "{", "[]", "{\xff}", "<html></html>"}) {
        server.serve("/TileAd/v2", content);
        EXPECT_FALSE(fetch("/TileAd/v2")) << content;
        EXPECT_THAT(output, HasSubstr("not a JSON object")) << content;
    }
    server.serve("/TileAd/v2", R"({"tiles": 5})");
    server.set_faults("* cut 5");
    EXPECT_FALSE(fetch("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("7 bytes remaining"));
    EXPECT_EQ(output_lines(), 1) << output;
    server.take_requests();
    EXPECT_FALSE(fetch("/../secret"));
    EXPECT_THAT(server.take_requests(), IsEmpty());

    EXPECT_EQ(read_file(data + "/TileAd-v2.json"), kept);
    EXPECT_EQ(names_in(data), (Names{"TileAd-v2.json", "TileAd-v2.json.validator", "AppsAd-v2.json",
                                     "AppsAd-v2.json.validator"}));
}

TEST_F(Device, AsksForADocumentOnlyWhenItHasChanged) {
    const auto expect = [&](const std::string& said, const std::string& request) {
        EXPECT_TRUE(fetch("/TileAd/v2"));
        EXPECT_THAT(output, HasSubstr(said));
        EXPECT_THAT(server.take_requests(), ElementsAre(request));
    };
    for (const auto& [content, said] : Cases{{"{}", "2 bytes"}, {"{ }", "3 bytes"}}) {
        server.serve("/TileAd/v2", content);
        expect(said, "/TileAd/v2");
        expect("not modified", "/TileAd/v2 304");
    }
    // A document that is lost or damaged here, or came from elsewhere, is wanted whole.
    remove("TileAd-v2.json");
    expect("3 bytes", "/TileAd/v2");
    write_file(data + "/TileAd-v2.json", "{ ");
    expect("3 bytes", "/TileAd/v2");
    const std::string validator = read_file(data + "/TileAd-v2.json.validator");
    Names others = {"http://elsewhere" + validator};
    for (std::size_t length = 0; length < validator.size(); ++length)
        others.insert(validator.substr(0, length));
    for (const std::string& other : others) {
        write_file(data + "/TileAd-v2.json.validator", other);
        expect("3 bytes", "/TileAd/v2");
    }

    server.serve("/TileAd/v2", "{}");
    server.set_faults("* noetag");
    expect("2 bytes", "/TileAd/v2");
    expect("2 bytes", "/TileAd/v2");
    server.set_faults("* status 304");
    EXPECT_FALSE(fetch("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("unexpected HTTP status 304"));
}

TEST_F(Device, DownloadsAnImageOnce) {
    expect_update("1.05", IMAGE);
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini", "/images/zelADAgent-1.06.img"));
    EXPECT_EQ(names_in(data), (Names{"zelADAgent.img", "zelADAgentCache.xml", "state.ini",
                                     "update.ini", "update.ini.validator"}));
    // One line for each tenth, and two around them.
    EXPECT_THAT(output, HasSubstr("ad-agent: update: downloaded 30 % of 400000 bytes\n"));
    EXPECT_LE(output_lines(), 12);
    EXPECT_GE(output_lines(), 5);

    // Nobody took it away: there is no need to fetch it again.
    expect_update("0.00", IMAGE);
    EXPECT_THAT(output, HasSubstr("version 1.06 was already downloaded to"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini 304"));

    server.publish("1.07", "small");
    expect_update("1.06", "small");
    // A server that takes it back leaves nothing of it here.
    server.publish("1.06", IMAGE);
    expect_no_update("1.06", "1.06 is not newer than the stored version 1.06");
    EXPECT_THAT(image_files(), IsEmpty());
}

class BadServer : public Device {
protected:
    BadServer() { write_file(data + "/zelADAgent.img", "an old download"); }

    void expect_refusal(const std::string& reason) {
        expect_no_update("1.05", reason);
        EXPECT_THAT(output, MatchesRegex("(ad-agent: update: downloading [^\n]*\n)?"
                                         "(ad-agent: update: downloaded [0-9]+ % [^\n]*\n)*"
                                         "ad-agent: update: [^\n]*\n"));
        EXPECT_EQ(read_file(data + "/zelADAgent.img"), "an old download");
        EXPECT_FALSE(std::filesystem::exists(data + "/update.ini.part"));
    }
};

TEST_F(BadServer, CostsOneLineAndNothingElse) {
    for (const auto& [fault, reason] :
         Cases{{"/update.ini status 404", "update.ini: The requested URL returned"},
               {"/update.ini redirect", "redirected more than 5 times"},
               {"/update.ini garbage", "HTTP/0.9"},
               {"/update.ini status 200", "not a key-value pair"},
               {"/update.ini endless", "response exceeds"},
               {"/update.ini cut 20", "bytes remaining"},
               {"/images/* status 404", "1.06.img: The requested URL returned"},
               {"/images/* status 204", "unexpected HTTP status 204"},
               {"/images/* status 206", "unexpected HTTP status 206"},
               {"/images/* endless", "response exceeds"},
               {"/images/* cut 0", "400000 bytes remaining"},
               {"/images/* declare 300000", "Content-Length is 300000"},
               {"/images/* declare 500000", "Content-Length is 500000, expected 400000"}}) {
        SCOPED_TRACE(fault);
        server.set_faults(fault);
        expect_refusal(reason);
        // None of these is worth going on with.
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    }
    server.set_faults("");
    server.publish("1.06", IMAGE, "sha256=" + std::string(64, 'a'));
    expect_refusal("SHA-256 is");
    EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    configure("http://127.0.0.1:1");
    expect_refusal("http://127.0.0.1:1/update.ini: Failed to connect");
}

TEST_F(BadServer, IsNotWaitedForLongerThanConfigured) {
    for (const auto& [fault, timeout] : Cases{{"/update.ini stall 10", "stall=1"},
                                              {"/update.ini stall 10", "document=1"},
                                              {"/images/* stall 0", "image=1"}}) {
        SCOPED_TRACE(fault);
        server.set_faults(fault);
        configure(server.url, "[timeouts]\n" + timeout + "\n");
        const auto start = std::chrono::steady_clock::now();
        expect_refusal(timeout == "stall=1" ? "no data received for 1 seconds" : "timed out");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    }
}

TEST_F(Device, MakesItsFolderAndNamesWhatIsMissing) {
    server.serve("/TileAd/v2", "{}");
    settled = false;
    std::filesystem::remove(data);
    EXPECT_EQ(agent.version(), "0.00");
    agent.report_loaded_library(places.updatable_library, false);
    EXPECT_FALSE(std::filesystem::exists(data));
    EXPECT_TRUE(fetch("/TileAd/v2")) << output;
    EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms(0755));

    const auto expect_failures = [&](const std::string& reason) {
        server.take_requests();
        EXPECT_FALSE(update("0.00"));
        EXPECT_EQ(output, "ad-agent: update: " + reason);
        EXPECT_FALSE(fetch("/TileAd/v2"));
        EXPECT_EQ(output, "ad-agent: configuration document /TileAd/v2: " + reason);
        EXPECT_THAT(server.take_requests(), IsEmpty());
    };
    std::filesystem::remove_all(data);
    write_file(data, "in the way");
    expect_failures("failed to create data directory " + data + ": Not a directory\n");
    EXPECT_FALSE(agent.set_version("1.05"));

    std::filesystem::remove(data);
    std::filesystem::remove(places.configuration);
    expect_failures("failed to read configuration " + places.configuration +
                    ": No such file or directory\n");
}

TEST_F(Device, KeepsWhatItHasOnAFullOrReadOnlyFileSystem) {
    // A small one over the data folder, seen by this process alone.
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", data.c_str(), "tmpfs", 0, "size=128k") != 0)
        GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    write_file(data + "/zelADAgent.img", "an old download");
    expect_no_update("1.05", "bytes needed, ");
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini"));
    EXPECT_EQ(read_file(data + "/zelADAgent.img"), "an old download");
    EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    write_file(places.stored_image, IMAGE);
    settled = false;
    expect_no_update("1.06", "bytes needed, ");

    write_file(data + "/filler", std::string(200000, 'x'));
    server.serve("/TileAd/v2", "{" + std::string(8192, ' ') + "}");
    EXPECT_FALSE(fetch("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("No space left on device"));
    EXPECT_FALSE(agent.set_version("1.06"));
    EXPECT_EQ(agent.version(), "1.05");

    ASSERT_EQ(mount(nullptr, data.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_FALSE(fetch("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("failed to create " + data + "/TileAd-v2.json.part: Read-only"));
    umount2(data.c_str(), MNT_DETACH);
}

}  // namespace
