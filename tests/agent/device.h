/**
 * An agent in a folder of its own, with a content server beside it.
 */
#ifndef TESTS_AGENT_DEVICE_H
#define TESTS_AGENT_DEVICE_H

#include "agent.h"
#include "content_server.h"
#include "platform.h"
#include "temporary_folder.h"

#include <algorithm>

#include <gtest/gtest.h>

class Device : public testing::Test {
protected:
    Device() {
        std::filesystem::create_directory(data);
        configure(server.url());
    }

    void configure(const std::string& url, const std::string& timeouts = "") const {
        write_file(folder / "agent.conf",
                   "[server]\nurl=" + url + "\n[timeouts]\n" + timeouts + "\n");
    }

    /**
     * Runs an update of a device whose stored image is installed, unless settled
     * says otherwise. @return its result; output() has what it said
     */
    bool update(const std::string& stored_version) {
        if (settled) record(stored_version);
        testing::internal::CaptureStderr();
        const bool downloaded = agent.update(stored_version);
        m_output = testing::internal::GetCapturedStderr();
        return downloaded;
    }

    void record(const std::string& version) const {
        write_file(data + "/zelADAgentCache.xml",
                   "<Cache><SoVersion>" + version + "</SoVersion></Cache>");
    }

    /** Puts an image in place as the host does, and as far as an installation came. */
    void store(const std::string& image, const std::string& recorded_version) const {
        write_file(places.stored_image, image);
        std::filesystem::remove(data + "/zelADAgent.img");
        if (!recorded_version.empty()) record(recorded_version);
    }

    /** The names of the image and of what there is of one. */
    std::set<std::string> image_files() const {
        std::set<std::string> names = names_in(data);
        for (auto name = names.begin(); name != names.end();)
            name = name->find("zelADAgent.img") == 0 ? std::next(name) : names.erase(name);
        return names;
    }

    bool fetch_configuration(const std::string& url_path) {
        testing::internal::CaptureStderr();
        const bool kept = agent.fetch_configuration(url_path);
        m_output = testing::internal::GetCapturedStderr();
        return kept;
    }

    const std::string& output() const { return m_output; }
    auto output_lines() const { return std::count(m_output.begin(), m_output.end(), '\n'); }

    /** The downloaded image, empty for none. */
    std::string image() const { return read_file(data + "/zelADAgent.img"); }

    TemporaryFolder folder;
    ContentServer server;
    const std::string data = folder / "data";
    const ad_agent::Places places = {folder / "agent.conf",       data,
                                     folder / "store/image",      folder / "updatable/agent.so",
                                     folder / "builtin/agent.so", folder / "builtin/zel.xml"};
    const ad_agent::Agent agent{places};
    bool settled = true;

private:
    std::string m_output;
};

/** Several times as much as one write to a socket takes. */
inline std::string large_image() {
    std::string image(400000, 'z');
    for (std::size_t i = 0; i < image.size(); i += 7) image[i] = static_cast<char>(i / 7);
    return image;
}

#endif
