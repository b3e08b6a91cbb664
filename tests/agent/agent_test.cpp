// Fetching and updating against a real server, which may misbehave.
#include "device.h"

#include <chrono>
#include <cstring>

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
    EXPECT_THAT(output, HasSubstr("kept as " + data + "/TileAd-v2.json, 12 bytes\n"));
    EXPECT_TRUE(fetch_configuration("/AppsAd/v2"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/TileAd/v2", "/AppsAd/v2"));

    server.serve("/TileAd/v2", R"({"tiles": 5})");
    for (const auto& [fault, reason] : Cases{{"* status 200", "not a JSON object"},
                                             {"* status 404", "404"},
                                             {"* status 204", "status 204"},
                                             {"* garbage", "HTTP/0.9"},
                                             {"* endless", "more than it should"},
                                             {"* cut 5", "7 bytes remaining"},
                                             {"* redirect", "redirect"}}) {
        server.set_faults(fault);
        EXPECT_FALSE(fetch_configuration("/TileAd/v2")) << fault;
        EXPECT_THAT(output, HasSubstr(reason)) << fault;
        EXPECT_EQ(output_lines(), 1) << output;
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
    EXPECT_EQ(names_in(data), (Names{"TileAd-v2.json", "TileAd-v2.json.validator", "AppsAd-v2.json",
                                     "AppsAd-v2.json.validator"}));
}

TEST_F(Device, AsksForADocumentOnlyWhenItHasChanged) {
    const auto fetch = [&](const std::string& said, const std::string& request) {
        EXPECT_TRUE(fetch_configuration("/TileAd/v2"));
        EXPECT_THAT(output, HasSubstr(said));
        EXPECT_THAT(server.take_requests(), ElementsAre(request));
    };
    for (const char* content : {"{}", "{ }"}) {
        server.serve("/TileAd/v2", content);
        fetch(std::to_string(std::strlen(content)) + " bytes", "/TileAd/v2");
        fetch("has not changed", "/TileAd/v2 304");
    }
    // A document that is lost or damaged here, or came from elsewhere, is wanted whole.
    remove("TileAd-v2.json");
    fetch("3 bytes", "/TileAd/v2");
    write_file(data + "/TileAd-v2.json", "{ ");
    fetch("3 bytes", "/TileAd/v2");
    const std::string validator = read_file(data + "/TileAd-v2.json.validator");
    write_file(data + "/TileAd-v2.json.validator", "http://elsewhere" + validator);
    fetch("3 bytes", "/TileAd/v2");
    for (std::size_t length = 0; length < validator.size(); ++length) {
        write_file(data + "/TileAd-v2.json.validator", validator.substr(0, length));
        fetch("3 bytes", "/TileAd/v2");
    }
    EXPECT_EQ(read_file(data + "/TileAd-v2.json"), "{ }");

    server.set_faults("* noetag");
    server.serve("/TileAd/v2", "{}");
    fetch("2 bytes", "/TileAd/v2");
    fetch("2 bytes", "/TileAd/v2");
    server.set_faults("* status 304");
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("answers with status 304"));
}

TEST_F(Device, DownloadsAnImageOnlyWhenItIsNewer) {
    server.publish("1.06", large_image());
    for (const char* installed : {"1.06", "1.060", "1.1", "2"}) {
        EXPECT_FALSE(update(installed)) << installed;
        EXPECT_THAT(output, HasSubstr("1.06 is not newer than"));
        EXPECT_EQ(server.take_requests().size(), 1U);
    }
    EXPECT_THAT(image_files(), IsEmpty());

    EXPECT_TRUE(update("1.05"));
    EXPECT_THAT(server.take_requests(),
                ElementsAre("/update.ini 304", "/images/zelADAgent-1.06.img"));
    EXPECT_TRUE(image() == large_image());
    EXPECT_EQ(names_in(data), (Names{"zelADAgent.img", "zelADAgentCache.xml", "state.ini",
                                     "update.ini", "update.ini.validator"}));
    // One line for each tenth, and three around them.
    EXPECT_THAT(output, HasSubstr("ad-agent: update: 30 % of 400000 bytes\n"));
    EXPECT_LE(output_lines(), 12);
    EXPECT_GE(output_lines(), 5);

    // Nobody took it away: there is no need to fetch it again.
    EXPECT_TRUE(update("0.00"));
    EXPECT_THAT(output, HasSubstr("version 1.06 is already at"));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini 304"));

    server.publish("1.07", "small");
    EXPECT_TRUE(update("1.06"));
    EXPECT_EQ(image(), "small");
    // A server that takes it back leaves nothing of it here.
    server.publish("1.06", large_image());
    EXPECT_FALSE(update("1.06"));
    EXPECT_THAT(image_files(), IsEmpty());
}

class BadServer : public Device {
protected:
    BadServer() {
        write_file(data + "/zelADAgent.img", "an old download");
        server.publish("1.06", large_image());
    }

    void expect_refusal(const std::string& reason) {
        EXPECT_FALSE(update("1.05"));
        EXPECT_THAT(output, HasSubstr(reason));
        std::istringstream text(output);
        int lines = 0;
        for (std::string line; std::getline(text, line);)
            lines += line.find(" % of ") == std::string::npos ? 1 : 0;
        EXPECT_EQ(lines, output.find("downloading") != std::string::npos ? 2 : 1) << output;
        EXPECT_EQ(image(), "an old download");
        EXPECT_FALSE(std::filesystem::exists(data + "/update.ini.part"));
    }
};

TEST_F(BadServer, CostsOneLineAndNothingElse) {
    for (const auto& [fault, reason] :
         Cases{{"/update.ini status 404", "update.ini: The requested URL returned"},
               {"/update.ini status 500", "500"},
               {"/update.ini redirect", "redirects"},
               {"/update.ini garbage", "HTTP/0.9"},
               {"/update.ini status 200", "not a key-value pair"},
               {"/update.ini endless", "more than it should"},
               {"/update.ini cut 20", "bytes remaining"},
               {"/update.ini declare 60", "[image] sha256 is not"},
               {"/images/* status 404", "1.06.img: The requested URL returned"},
               {"/images/* redirect", "redirects"},
               {"/images/* status 200", "announces 61 bytes instead of 400000"},
               {"/images/* endless", "more than it should"},
               {"/images/* cut 0", "400000 bytes remaining"},
               {"/images/* status 206", "answers with status 206"},
               {"/images/* declare 300000", "announces 300000 bytes"},
               {"/images/* declare 500000", "announces 500000 bytes"}}) {
        SCOPED_TRACE(fault);
        server.set_faults(fault);
        expect_refusal(reason);
        // None of these is worth going on with.
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    }
    server.set_faults("");
    for (const auto& [line, reason] :
         Cases{{"sha256=" + std::string(64, 'a'), "not the index's"},
               {"size=400001", "announces 400000 bytes instead of 400001"},
               {"size=399999", "announces 400000 bytes instead of 399999"}}) {
        server.publish("1.06", large_image(), line);
        expect_refusal(reason);
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    }
    configure("http://127.0.0.1:1");
    expect_refusal("http://127.0.0.1:1/update.ini: Failed to connect");
}

TEST_F(BadServer, IsNotWaitedForLongerThanConfigured) {
    for (const auto& [fault, timeout] : Cases{{"/update.ini stall 10", "stall=1"},
                                              {"/update.ini stall 10", "document=1"},
                                              {"/images/* stall 0", "stall=1"},
                                              {"/images/* stall 0", "image=1"}}) {
        SCOPED_TRACE(fault);
        server.set_faults(fault);
        configure(server.url(), "[timeouts]\n" + timeout + "\n");
        const auto start = std::chrono::steady_clock::now();
        remove("zelADAgent.img.part");
        expect_refusal(timeout == "stall=1" ? "no byte in 1 seconds" : "timed out");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    }
}

TEST_F(Device, MakesItsFolderAndNamesWhatIsMissing) {
    server.serve("/TileAd/v2", "{}");
    settled = false;
    std::filesystem::remove(data);
    EXPECT_EQ(agent.version(), "0.00");
    agent.loaded_from(places.updatable_library, false);
    EXPECT_FALSE(std::filesystem::exists(data));
    EXPECT_TRUE(fetch_configuration("/TileAd/v2")) << output;
    EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms(0755));

    std::filesystem::remove_all(data);
    write_file(data, "in the way");
    const std::string reason = "cannot make data folder " + data + ": Not a directory\n";
    EXPECT_FALSE(update("1.05"));
    EXPECT_EQ(output, "ad-agent: update: " + reason);
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_EQ(output, "ad-agent: configuration document /TileAd/v2: " + reason);
    EXPECT_FALSE(agent.set_version("1.05"));

    std::filesystem::remove(data);
    server.take_requests();
    std::filesystem::remove(folder / "agent.conf");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output, HasSubstr("update: configuration " + (folder / "agent.conf: No such")));
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("agent.conf: No such file"));
    EXPECT_THAT(server.take_requests(), IsEmpty());
}

TEST_F(Device, KeepsWhatItHasOnAFullOrReadOnlyFileSystem) {
    // A small one over the data folder, seen by this process alone.
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", data.c_str(), "tmpfs", 0, "size=128k") != 0)
        GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    write_file(data + "/zelADAgent.img", "an old download");
    server.publish("1.06", large_image());
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output, HasSubstr("no room for the image: 400000 bytes are needed and "));
    EXPECT_THAT(server.take_requests(), ElementsAre("/update.ini"));
    EXPECT_EQ(image(), "an old download");
    EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
    store(large_image(), "1.05");
    settled = false;
    EXPECT_FALSE(update("1.06"));
    EXPECT_THAT(output, HasSubstr("no room to offer the stored image again"));

    write_file(data + "/filler", std::string(200000, 'x'));
    server.serve("/TileAd/v2", "{" + std::string(8192, ' ') + "}");
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("No space left on device"));
    EXPECT_FALSE(agent.set_version("1.06"));
    EXPECT_EQ(agent.version(), "1.05");

    ASSERT_EQ(mount(nullptr, data.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_FALSE(fetch_configuration("/TileAd/v2"));
    EXPECT_THAT(output, HasSubstr("cannot create " + data + "/TileAd-v2.json.part: Read-only"));
    umount2(data.c_str(), MNT_DETACH);
}

}  // namespace
