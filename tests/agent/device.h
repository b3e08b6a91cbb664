/**
 * An agent in a folder of its own, with a content server beside it.
 */
#ifndef TESTS_AGENT_DEVICE_H
#define TESTS_AGENT_DEVICE_H

#include "agent.h"
#include "content_server.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/** What the tests' platform gives as the firmware's version; empty for a failure. */
inline std::string platform_firmware = "T-1200.1";

class Device : public testing::Test {
protected:
    Device() {
        std::filesystem::create_directory(data);
        configure(server.url());
    }

    void configure(const std::string& url, const std::string& lines = "") const {
        write_file(folder / "agent.conf", "[server]\nurl=" + url + "\n" + lines);
    }

    /** Runs an update of a device whose stored image is installed, unless settled says otherwise.
     */
    bool update(const std::string& stored_version) {
        if (settled) record(stored_version);
        return listen([&] { return agent.update(stored_version); });
    }

    bool fetch_configuration(const std::string& url_path) {
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

    /** Puts an image in place as the host does, and as far as an installation came. */
    void store(const std::string& image, const std::string& recorded_version) const {
        write_file(places.stored_image, image);
        remove("zelADAgent.img");
        if (!recorded_version.empty()) record(recorded_version);
    }

    /** The names of the image and of what there is of one. */
    Names image_files() const { return names_in(data, "zelADAgent.img"); }

    /** The downloaded image, empty for none. */
    std::string image() const { return read_file(data + "/zelADAgent.img"); }

    void remove(const std::string& name) const { std::filesystem::remove(data + "/" + name); }

    /** Waits until so many bytes of an image have come. */
    void await_part(std::size_t bytes) const {
        std::error_code missing;
        for (int tries = 0; tries < 5000; ++tries) {
            if (std::filesystem::file_size(part, missing) >= bytes && !missing) return;
            usleep(1000);
        }
    }

    auto output_lines() const { return std::count(output.begin(), output.end(), '\n'); }

    TemporaryFolder folder;
    ContentServer server;
    const std::string data = folder / "data";
    const std::string part = data + "/zelADAgent.img.part";
    const ad_agent::Places places = {folder / "agent.conf",       data,
                                     folder / "store/image",      folder / "updatable/agent.so",
                                     folder / "builtin/agent.so", folder / "builtin/zel.xml"};
    const ad_agent::Agent agent{places};
    bool settled = true;
    std::string output;
};

/** Several times as much as one write to a socket takes. */
inline std::string large_image() {
    std::string image(400000, 'z');
    for (std::size_t i = 0; i < image.size(); i += 7) image[i] = static_cast<char>(i / 7);
    return image;
}

#endif
