/**
 * An agent in a folder of its own, with a content server beside it.
 */
#ifndef TESTS_AGENT_DEVICE_H
#define TESTS_AGENT_DEVICE_H

#include "ADDigest.h"
#include "agent.h"
#include "files.h"
#include "line_process.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

/** The content server for tests, run as a process for as long as the object lives. */
class ContentServer {
public:
    /** @param options  more of content_server.py's, all for HTTPS */
    explicit ContentServer(const std::string& scheme = "http://",
                           const std::vector<std::string>& options = {}) {
        std::filesystem::create_directory(folder / "content");
        std::vector<std::string> command = {"setpriv", "--pdeathsig", "KILL", CONTENT_SERVER};
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(), {"--log", folder / "log", "--faults", folder / "faults",
                                       folder / "content"});
        m_process.emplace(command);
        const auto port = m_process->await("", std::chrono::seconds(20));
        url = scheme + "127.0.0.1:" + port.value_or("none");
    }

    /** Puts a file where the server finds it. */
    void serve(const std::string& url_path, const std::string& content) const {
        write_file(folder / ("content" + url_path), content);
    }

    /** Publishes an image and its index, whose end may say something else. */
    void publish(const std::string& version, const std::string& image,
                 const std::string& lines = "") const {
        const std::string name = "zelADAgent-" + version + ".img";
        serve("/images/" + name, image);
        const std::string sha256 = ad_sha256_file((folder / ("content/images/" + name)).c_str());
        serve("/update.ini", "[image]\nversion=" + version + "\nfile=" + name + "\nsha256=" +
                                 sha256 + "\nsize=" + std::to_string(image.size()) + "\n" + lines);
    }

    /** Says how to misbehave, as lines of content_server.py; no line for not at all. */
    void set_faults(const std::string& lines) const { write_file(folder / "faults", lines); }

    /** What was asked for since the last call, as lines of content_server.py. */
    std::vector<std::string> take_requests() const {
        std::istringstream log(read_file(folder / "log"));
        std::filesystem::remove(folder / "log");
        std::vector<std::string> paths;
        for (std::string path; std::getline(log, path);) paths.push_back(path);
        return paths;
    }

    const TemporaryFolder folder;
    std::string url;

private:
    std::optional<test_support::LineProcess> m_process;
};

/** What the tests' platform gives as the firmware's version; empty for a failure. */
inline std::string platform_firmware = "T-1200.1";

class Device : public testing::Test {
protected:
    Device() {
        std::filesystem::create_directory(data);
        configure(server.url);
        server.publish("1.06", IMAGE);
    }

    void configure(const std::string& url, const std::string& lines = "") const {
        write_file(places.configuration, "[server]\nurl=" + url + "\n" + lines);
    }

    /** Runs an update of a device whose stored image is installed, unless settled says not so. */
    bool update(const std::string& stored_version) {
        if (settled) record(stored_version);
        return listen([&] { return agent.update(stored_version); });
    }
    void expect_update(const std::string& stored_version, const std::string& image) {
        EXPECT_TRUE(update(stored_version)) << output;
        EXPECT_TRUE(read_file(data + "/zelADAgent.img") == image);
    }
    void expect_no_update(const std::string& stored_version, const std::string& reason) {
        EXPECT_FALSE(update(stored_version)) << reason;
        EXPECT_THAT(output, testing::HasSubstr(reason));
    }

    bool fetch(const std::string& url_path) {
        return listen([&] { return agent.fetch_configuration(url_path); });
    }

    /** Keeps in output what some work says. */
    template <typename Work>
    bool listen(Work work) {
        testing::internal::CaptureStderr();
        const bool result = work();
        output = testing::internal::GetCapturedStderr();
        return result;
    }

    void record(const std::string& version) const {
        write_file(data + "/zelADAgentCache.xml",
                   "<Cache><SoVersion>" + version + "</SoVersion></Cache>");
    }

    /** The names of the image and of what there is of one. */
    Names image_files() const { return names_in(data, "zelADAgent.img"); }

    void remove(const std::string& name) const { std::filesystem::remove(data + "/" + name); }

    auto output_lines() const { return std::count(output.begin(), output.end(), '\n'); }

    /** Several times as much as one write to a socket takes. */
    static std::string large_image() {
        std::string image(400000, ' ');
        std::iota(image.begin(), image.end(), '\0');
        return image;
    }

    const std::string IMAGE = large_image();
    const TemporaryFolder folder;
    const ContentServer server;
    const std::string data = folder / "data";
    const std::string part = data + "/zelADAgent.img.part";
    const ad_agent::DevicePaths places = {
        folder / "agent.conf",       data,
        folder / "store/image",      folder / "updatable/agent.so",
        folder / "builtin/agent.so", folder / "builtin/zel.xml"};
    const ad_agent::Agent agent{places};
    bool settled = true;
    std::string output;
};

#endif
