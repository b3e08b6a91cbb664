// The built library as its host finds it: by name, with the device's own paths.
#include "ad_agent.h"
#include "ad_player.h"
#include "temporary_folder.h"

#include <array>
#include <cstring>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

namespace {

using testing::HasSubstr;

constexpr std::array<const char*, 7> NOT_SUPPORTED = {
    "ad_agent_register", "ad_agent_unregister", "ad_agent_request", "ad_agent_request_sync",
    "ad_agent_report",   "ad_agent_launch",     "ad_agent_psid_get"};
constexpr std::array<const char*, 6> SUPPORTED = {
    "ad_agent_init",          "ad_agent_clear",         "ad_agent_update",
    "ad_agent_set_soversion", "ad_agent_get_soversion", "ad_agent_config_server"};

TEST(Library, ExportsItsEntryPointsAndNothingElse) {
    std::set<std::string> expected(NOT_SUPPORTED.begin(), NOT_SUPPORTED.end());
    expected.insert(SUPPORTED.begin(), SUPPORTED.end());

    FILE* nm = popen("nm -D --defined-only --format=posix '" AGENT_LIBRARY "'", "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    std::array<char, 4096> line = {};
    while (fgets(line.data(), line.size(), nm)) exported.insert(strtok(line.data(), " "));
    ASSERT_EQ(pclose(nm), 0);
    EXPECT_EQ(exported, expected);
}

TEST(PlayerLibrary, TellsItsVersion) {
    void* library = dlopen(PLAYER_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto version =
        reinterpret_cast<decltype(&ad_player_version)>(dlsym(library, "ad_player_version"));
    ASSERT_NE(version, nullptr);
    EXPECT_STRNE(version(), "");
    dlclose(library);
}

class HostedLibrary : public testing::Test {
protected:
    void SetUp() override {
        library = dlopen(AGENT_LIBRARY, RTLD_LAZY);
        ASSERT_NE(library, nullptr) << dlerror();
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", "/opt", "tmpfs", 0, nullptr) != 0)
            GTEST_SKIP() << "no right to mount over /opt: " << std::strerror(errno);
        mounted = true;
        std::filesystem::create_directories(data);
    }
    ~HostedLibrary() override {
        if (mounted) umount2("/opt", MNT_DETACH);
        if (library) dlclose(library);
    }

    template <typename Function>
    Function* entry(const char* name, Function*) const {
        return reinterpret_cast<Function*>(dlsym(library, name));
    }
    int call(const char* name) const { return entry(name, &ad_agent_init)(); }

    void* library = nullptr;
    bool mounted = false;
    const std::string data = "/opt/usr/apps/adagent";
};

TEST_F(HostedLibrary, NamesItsFileAndWhatItDoesNotDo) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(call("ad_agent_init"), AD_AGENT_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ad-agent: loaded from " AGENT_LIBRARY "\n");
    for (const char* name : NOT_SUPPORTED) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(name), AD_AGENT_NOT_SUPPORTED);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("ad-agent: ") + name + ": not supported\n");
    }
    EXPECT_EQ(call("ad_agent_clear"), AD_AGENT_OK);
}

TEST_F(HostedLibrary, KeepsToTheVersionBuffer) {
    const auto get = entry("ad_agent_get_soversion", &ad_agent_get_soversion);
    const auto set = entry("ad_agent_set_soversion", &ad_agent_set_soversion);
    EXPECT_EQ(get(nullptr), AD_AGENT_FAILED);
    for (const std::string version :
         {"0.00", "1.05", "1234567890123456789", "12345678901234567890123456789"}) {
        if (version != "0.00") {
            ASSERT_EQ(set(version.c_str()), AD_AGENT_OK);
            EXPECT_EQ(read_file(data + "/zelADAgentCache.xml"),
                      "<Cache><SoVersion>" + version + "</SoVersion></Cache>\n");
        }
        std::array<char, 24> buffer = {};
        std::memset(buffer.data() + AD_AGENT_VERSION_BUFFER_SIZE, '#', 4);
        ASSERT_EQ(get(buffer.data()), AD_AGENT_OK);
        EXPECT_EQ(buffer.data(), version.substr(0, 19));
        EXPECT_EQ(std::memcmp(buffer.data() + AD_AGENT_VERSION_BUFFER_SIZE, "####", 4), 0);
    }
}

TEST_F(HostedLibrary, KnowsTheCopyThatDidNotLoad) {
    const std::string state = "[installed]\nsha256=a1\nversion=1.06\nloaded=false\n";
    const std::string updatable = "/opt/usr/lib/libad-agent-fwk.so";
    const auto load_and_init = [](const char* file) {
        void* copy = dlopen(file, RTLD_LAZY);
        ASSERT_NE(copy, nullptr) << dlerror();
        // By then the host has removed the copy that failed.
        std::filesystem::remove("/opt/usr/lib/libad-agent-fwk.so");
        EXPECT_EQ(reinterpret_cast<decltype(&ad_agent_init)>(dlsym(copy, "ad_agent_init"))(),
                  AD_AGENT_OK);
        dlclose(copy);
    };
    std::filesystem::create_directories("/opt/usr/lib");
    std::filesystem::create_directories("/opt/work");
    write_file("/opt/upper/libad-agent-fwk.so", read_file(AGENT_LIBRARY));
    if (mount("overlay", "/usr/lib", "overlay", 0,
              "lowerdir=/usr/lib,upperdir=/opt/upper,workdir=/opt/work") != 0)
        GTEST_SKIP() << "no right to mount over /usr/lib: " << std::strerror(errno);

    write_file(updatable, read_file(AGENT_LIBRARY));
    write_file(data + "/state.ini", state);
    load_and_init(updatable.c_str());
    EXPECT_THAT(read_file(data + "/state.ini"), HasSubstr("loaded=true"));

    write_file(updatable, "no library");
    write_file(data + "/state.ini", state);
    load_and_init("/usr/lib/libad-agent-fwk.so");
    EXPECT_THAT(read_file(data + "/state.ini"), HasSubstr("[bad]\nsha256=a1;"));

    write_file(data + "/state.ini", state);
    load_and_init("/usr/lib/libad-agent-fwk.so");
    EXPECT_THAT(read_file(data + "/state.ini"), HasSubstr("[bad]\nsha256=\n"));
    umount2("/usr/lib", MNT_DETACH);
}

TEST_F(HostedLibrary, WorksInTheDevicesFolders) {
    const auto update = entry("ad_agent_update", &ad_agent_update);
    const auto fetch = entry("ad_agent_config_server", &ad_agent_config_server);
    testing::internal::CaptureStderr();
    EXPECT_EQ(update("0.00"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(fetch("/TileAd/v2"), AD_AGENT_FAILED);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("update: configuration /opt/etc/ad-agent.conf: No such file"));

    write_file("/opt/etc/ad-agent.conf", "[server]\nurl=file:///opt/web\n");
    write_file("/opt/web/TileAd/v2", "{}");
    write_file("/opt/web/images/a.img", "abc");
    write_file("/opt/web/update.ini",
               "[image]\nmin_firmware=T-1200.1\nmax_firmware=T-1200.1\nversion=1.06\nsize=3\nfile="
               "a.img\nsha256="
               "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n");
    EXPECT_EQ(fetch("/TileAd/v2"), AD_AGENT_OK);
    EXPECT_EQ(fetch(nullptr), AD_AGENT_FAILED);
    EXPECT_EQ(update("1.06"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(update("1.05"), AD_AGENT_UPDATE_DOWNLOADED);
    EXPECT_EQ(update(nullptr), AD_AGENT_UPDATE_DOWNLOADED);
    EXPECT_EQ(read_file(data + "/zelADAgent.img"), "abc");
    EXPECT_EQ(names_in(data), (std::set<std::string>{"TileAd-v2.json", "update.ini", "state.ini",
                                                     "zelADAgent.img"}));
}

}  // namespace
