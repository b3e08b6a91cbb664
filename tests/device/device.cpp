#include "device.h"

#include "ADDigest.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <unistd.h>

namespace device_tests {

namespace fs = std::filesystem;

namespace {

constexpr auto PATIENCE = std::chrono::seconds(20);

int lines_with(const std::string& text, const std::string& path) {
    std::ifstream file(path);
    int found = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.find(text) != std::string::npos) ++found;
    }
    return found;
}

void must(const std::string& command) {
    const Outcome outcome = shell(command);
    ASSERT_EQ(outcome.status, 0) << command << "\n" << outcome.output;
}

/** Skips every test where no device can be made. */
class Rights : public testing::Environment {
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
    }
};
const auto* const rights = testing::AddGlobalTestEnvironment(new Rights);

}  // namespace

bool poll(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

ContentServer::ContentServer(const std::string& device_home)
    : run_(device_home + "/run"),
      server_(
          {"python3", "-u", CONTENT_SERVER, device_home + "/www", "--faults", run_ + "/faults"}),
      port_(server_.await("", PATIENCE).value_or("none")) {}

void ContentServer::set_fault(const std::string& line) const {
    write_file(run_ + "/faults", line + "\n");
}

Device::Device(const std::string& platform) {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '-');
    home_ = std::string(BUILD_FOLDER) + "/test-devices/" + name;
    command("destroy");
    command("--platform " + platform + " create");
}

Device::~Device() {
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(leftovers(), "");
    if (testing::Test::HasFailure()) {
        fprintf(stderr, "--- the daemon's last boot ---\n%s\n",
                read_file(home("/run/daemon.log")).c_str());
    }
    command("destroy");
}

std::string Device::command_line(const std::string& command) const {
    return "'" AD_DEVICE "' --build '" BUILD_FOLDER "' --dir '" + home_ + "' " + command;
}

std::string Device::command(const std::string& command) const {
    const Outcome result = shell(command_line(command));
    EXPECT_EQ(result.status, 0) << command << ": " << result.output;
    return result.output;
}

void Device::open_gate() const {
    set("network up");
    set("consent 1");
}

void Device::publish_tree(const std::string& version, const std::string& folder) const {
    const std::string image = home("/run/tree-" + version + ".img");
    must("mksquashfs '" + folder + "' '" + image +
         "' -noappend -quiet -no-progress -all-root -comp zstd");
    publish_file(version, image);
}

void Device::publish_file(const std::string& version, const std::string& plain) const {
    const std::string name = "by-hand-" + version + ".img";
    const std::string image = home("/www/images/" + name);
    must("cd '" + home() + "' && minisign -S -s maker.key -t version:" + version + " -m '" + plain +
         "' -x run/signature");
    const std::string signature = read_file(home("/run/signature"));
    const char ending[] = {static_cast<char>(signature.size()),
                           static_cast<char>(signature.size() >> 8),
                           0,
                           0,
                           1,
                           0,
                           0,
                           0};
    write_file(image,
               read_file(plain) + signature + "ADIMGSIG" + std::string(ending, sizeof(ending)));
    write_file(home("/www/update.ini"),
               "[image]\nversion=" + version + "\nsize=" + std::to_string(fs::file_size(image)) +
                   "\nsha256=" + ad_sha256_file(image.c_str()) + "\nfile=" + name + "\n");
}

std::string Device::image_tree(const std::string& version, const std::string& mark) const {
    const std::string folder = home("/run/tree");
    fs::remove_all(folder);
    for (const std::string name : {"/libad-agent-fwk.so", "/libad-player-fwk.so"}) {
        write_file(folder + name, read_file(BUILD_FOLDER "/lib" + name) + mark);
    }
    write_file(folder + "/adplayer/res/version", mark);
    write_file(folder + "/zelADAgent.xml", "<Zel><Version>" + version + "</Version></Zel>");
    return folder;
}

void Device::start(const std::string& options) const {
    command("start --preload '" SHORT_WAITS "' " + options);
}

bool Device::boot(const std::string& text, const std::string& options) const {
    start(options);
    return await(text);
}

int Device::stop() const {
    command("stop");
    return std::atoi(read_file(home("/run/status")).c_str());
}

void Device::run_update(const std::string& options) const {
    open_gate();
    ASSERT_TRUE(boot(STARTED, options));
    EXPECT_EQ(stop(), 0);
}

void Device::install(const std::string& version) const {
    publish(version);
    run_update();
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

void Device::repair_mounter() const {
    if (exists(usr_bin("/ad-mounter.real"))) {
        fs::rename(usr_bin("/ad-mounter.real"), usr_bin("/ad-mounter"));
    }
}

bool Device::await(const std::string& text) const {
    return poll([&] { return logged(text) > 0; });
}

int Device::logged(const std::string& text) const {
    return lines_with(text, home("/run/daemon.log"));
}

int Device::requests(const std::string& path) const {
    return lines_with("\"GET " + path + " ", home("/run/server.log"));
}

bool Device::await_requests(const std::string& path, int wanted) const {
    return poll([&] { return requests(path) >= wanted; });
}

std::string Device::recorded_version() const {
    return shell("sed -n 's:.*<SoVersion>\\(.*\\)</SoVersion>.*:\\1:p' '" +
                 opt("/usr/apps/adagent/zelADAgentCache.xml") + "' 2>/dev/null | tr -d '\\n'")
        .output;
}

void Device::expect_installed(const std::string& version) const {
    EXPECT_EQ(recorded_version(), version);
    EXPECT_TRUE(read_file(agent_copy()) == read_file(BUILD_FOLDER "/lib/libad-agent-fwk.so"));
}

std::string Device::leftovers() const {
    // A loop device names its file as the device saw it; the inode tells whose it is.
    // Of the files below /opt, those that do not belong there were left.
    return shell("cd '" + home() +
                 "'; inode=$(stat -c %i opt/down/zels/zelADAgent_img/*.img 2>/dev/null)\n"
                 "losetup --list --noheadings --output BACK-INO,NAME,BACK-FILE |\n"
                 "    awk -v inode=\"${inode:--1}\" '$1 == inode'\n"
                 "grep -F \"$PWD\" /proc/self/mounts\n"
                 "find opt -type f ! -name platform.log ! -name state.ini ! -name ad-agent.conf "
                 "! -name adagentversion.txt ! -name zelADAgentCache.xml ! -name zelADAgent.img "
                 "! -name 'libad-*-fwk.so' ! -name update.ini ! -name update.ini.validator "
                 "! -name '*Ad-v2*'")
        .output;
}

}  // namespace device_tests
