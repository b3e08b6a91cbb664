#include "device.h"

#include "ADDigest.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace device_tests {

namespace fs = std::filesystem;

namespace {

constexpr auto PATIENCE = std::chrono::seconds(20);

int occurrences(const std::string& text, const std::string& wanted) {
    int found = 0;
    for (size_t at = text.find(wanted); at != std::string::npos;
         at = text.find(wanted, at + wanted.size())) {
        ++found;
    }
    return found;
}

}  // namespace

bool poll(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string read_file(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

bool exists(const std::string& path) { return fs::exists(path); }

ContentServer::ContentServer(const std::string& device_home)
    : run_(device_home + "/run"),
      server_({"python3", "-u", CONTENT_SERVER, device_home + "/www", "--log", run_ + "/asked",
               "--faults", run_ + "/faults"}),
      port_(server_.await("", PATIENCE).value_or("none")) {}

void ContentServer::set_fault(const std::string& line) const { write_file(run_ + "/faults", line); }

namespace {

/** Skips every test where no device can be made. */
class Rights : public testing::Environment {
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
    }
};
const auto* const rights = testing::AddGlobalTestEnvironment(new Rights);

}  // namespace

Device::Device(const std::string& platform) {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    for (char& letter : name) {
        if (letter == '/') {
            letter = '-';
        }
    }
    home_ = std::string(BUILD_FOLDER) + "/test-devices/" + name;
    command({"destroy"});
    command({"--platform", platform, "create"});
}

Device::~Device() {
    if (testing::Test::HasFailure()) {
        fprintf(stderr, "--- the daemon's last boot ---\n%s\n", log().c_str());
    }
    command({"destroy"});
}

std::string Device::command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> line{AD_DEVICE, "--build", BUILD_FOLDER, "--dir", home_};
    line.insert(line.end(), arguments.begin(), arguments.end());
    const Outcome result = run(line);
    EXPECT_EQ(result.status, 0) << arguments[0] << ": " << result.output;
    return result.output;
}

void Device::start(const std::vector<std::string>& options) const {
    std::vector<std::string> line{"start", "--preload", SHORT_WAITS};
    line.insert(line.end(), options.begin(), options.end());
    command(line);
}

int Device::stop() const {
    command({"stop"});
    return std::atoi(read_file(home_ + "/run/status").c_str());
}

void Device::set(const std::string& what, const std::string& value) const {
    command({"set", what, value});
}

void Device::open_gate() const {
    set("network", "up");
    set("consent", "1");
}

void Device::publish(const std::string& version) const { command({"publish", version}); }

void Device::publish_tree(const std::string& version, const std::string& folder) const {
    const std::string image = home_ + "/run/tree-" + version + ".img";
    const Outcome packed = run({"mksquashfs", folder, image, "-noappend", "-quiet", "-no-progress",
                                "-all-root", "-comp", "zstd"});
    ASSERT_EQ(packed.status, 0) << packed.output;
    publish_file(version, image);
}

void Device::publish_file(const std::string& version, const std::string& plain) const {
    const std::string name = "by-hand-" + version + ".img";
    const std::string image = home_ + "/www/images/" + name;
    const std::string signature = home_ + "/run/signature";
    const Outcome made = run({"minisign", "-S", "-s", home_ + "/maker.key", "-t",
                              "version:" + version, "-m", plain, "-x", signature});
    ASSERT_EQ(made.status, 0) << made.output;
    const std::string text = read_file(signature);
    const char ending[] = {
        static_cast<char>(text.size()), static_cast<char>(text.size() >> 8), 0, 0, 1, 0, 0, 0};
    fs::create_directories(home_ + "/www/images");
    write_file(image, read_file(plain) + text + "ADIMGSIG" + std::string(ending, sizeof(ending)));
    write_file(home_ + "/www/update.ini",
               "[image]\nversion=" + version + "\nsize=" + std::to_string(fs::file_size(image)) +
                   "\nsha256=" + ad_sha256_file(image.c_str()) + "\nfile=" + name + "\n");
}

void Device::run_update() const {
    open_gate();
    start();
    ASSERT_TRUE(await("[CADAgentd] Start end"));
    EXPECT_EQ(stop(), 0);
}

void Device::break_mounter(const std::string& option) const {
    replace_mounter("[ \"$1\" != " + option + " ] || exit 71\n");
}

void Device::replace_mounter(const std::string& script) const {
    repair_mounter();
    fs::rename(usr_bin("/ad-mounter"), usr_bin("/ad-mounter.real"));
    write_file(usr_bin("/ad-mounter"), "#!/bin/sh\n" + script + "exec ad-mounter.real \"$@\"\n");
    fs::permissions(usr_bin("/ad-mounter"), fs::perms(0755));
}

bool Device::running() const { return command({"status"}).find("on\n") < 20; }

void Device::repair_mounter() const {
    if (exists(usr_bin("/ad-mounter.real"))) {
        fs::rename(usr_bin("/ad-mounter.real"), usr_bin("/ad-mounter"));
    }
}

std::string Device::log() const { return read_file(home_ + "/run/daemon.log"); }

bool Device::await(const std::string& text) const {
    return poll([&] { return logged(text); });
}

bool Device::logged(const std::string& text) const { return log().find(text) != std::string::npos; }

int Device::count(const std::string& text) const { return occurrences(log(), text); }

int Device::requests(const std::string& path) const {
    return occurrences(read_file(home_ + "/run/server.log"), "\"GET " + path + " ");
}

bool Device::await_requests(const std::string& path, int wanted) const {
    return poll([&] { return requests(path) >= wanted; });
}

std::string Device::recorded_version() const {
    const std::string manifest = read_file(opt("/usr/apps/adagent/zelADAgentCache.xml"));
    const size_t begin = manifest.find("<SoVersion>");
    const size_t end = manifest.find("</SoVersion>");
    if (begin == std::string::npos || end == std::string::npos) {
        return "";
    }
    return manifest.substr(begin + 11, end - begin - 11);
}

bool Device::updatable_copy_is_published() const {
    return read_file(opt("/usr/lib/libad-agent-fwk.so")) ==
           read_file(std::string(BUILD_FOLDER) + "/lib/libad-agent-fwk.so");
}

std::string Device::leftovers() const {
    // A loop device names its file as the device saw it; the inode tells whose it is.
    std::string found =
        run({"sh", "-c",
             "ino=$(stat -c %i \"$1\"/opt/down/zels/zelADAgent_img/*.img 2>/dev/null);"
             "losetup --list --noheadings --output BACK-INO,NAME,BACK-FILE |"
             "awk -v ino=\"${ino:--1}\" '$1 == ino'; grep -F \"$1\" /proc/self/mounts",
             "sh", home_})
            .output;
    // Everything that belongs below /opt, by name; what else there is was left.
    static const std::vector<std::string> expected{
        "platform.log",        "state.ini",           "ad-agent.conf",      "adagentversion.txt",
        "zelADAgentCache.xml", "zelADAgent.img",      "libad-agent-fwk.so", "libad-player-fwk.so",
        "update.ini",          "update.ini.validator"};
    for (const auto& entry : fs::recursive_directory_iterator(home_ + "/opt")) {
        const std::string name = entry.path().filename();
        const bool document = name.find("Ad-v2") != std::string::npos;
        if (entry.is_regular_file() && !document &&
            std::find(expected.begin(), expected.end(), name) == expected.end()) {
            found += entry.path().string() + "\n";
        }
    }
    return found;
}

}  // namespace device_tests
