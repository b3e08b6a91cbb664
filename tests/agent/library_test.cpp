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

const Names NOT_SUPPORTED = {"ad_agent_register",     "ad_agent_unregister", "ad_agent_request",
                             "ad_agent_request_sync", "ad_agent_report",     "ad_agent_launch",
                             "ad_agent_psid_get"};

TEST(Library, ExportsItsEntryPointsAndNothingElse) {
    Names expected = {"ad_agent_init",          "ad_agent_clear",         "ad_agent_update",
                      "ad_agent_set_soversion", "ad_agent_get_soversion", "ad_agent_config_server"};
    expected.insert(NOT_SUPPORTED.begin(), NOT_SUPPORTED.end());

    FILE* nm = popen("nm -D --defined-only --format=posix '" AGENT_LIBRARY "'", "r");
    ASSERT_NE(nm, nullptr);
    Names exported;
    std::array<char, 4096> line = {};
    while (fgets(line.data(), line.size(), nm)) exported.insert(strtok(line.data(), " "));
    ASSERT_EQ(pclose(nm), 0);
    EXPECT_EQ(exported, expected);
}

/** A library that is loaded as long as the object lives. */
class Loaded {
public:
    explicit Loaded(const char* file) : m_library(dlopen(file, RTLD_LAZY)) {
        if (!m_library) ADD_FAILURE() << dlerror();
    }
    ~Loaded() {
        if (m_library) dlclose(m_library);
    }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    /** An entry, called as the function that is declared. */
    template <typename Function>
    Function* entry(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(m_library, name));
    }
    int call(const std::string& name) const {
        return entry<decltype(ad_agent_init)>(name.c_str())();
    }

private:
    void* m_library;
};

TEST(PlayerLibrary, TellsItsVersion) {
    const Loaded library(PLAYER_LIBRARY);
    const auto version = library.entry<decltype(ad_player_version)>("ad_player_version");
    ASSERT_NE(version, nullptr);
    EXPECT_STRNE(version(), "");
}

class HostedLibrary : public testing::Test {
protected:
    void SetUp() override {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", "/opt", "tmpfs", 0, nullptr) != 0)
            GTEST_SKIP() << "no right to mount over /opt: " << std::strerror(errno);
        mounted = true;
        std::filesystem::create_directories(data);
    }
    ~HostedLibrary() override {
        if (mounted) umount2("/opt", MNT_DETACH);
    }

    const Loaded library{AGENT_LIBRARY};
    bool mounted = false;
    const std::string data = "/opt/usr/apps/adagent";
};

TEST_F(HostedLibrary, NamesItsFileAndWhatItDoesNotDo) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(library.call("ad_agent_init"), AD_AGENT_OK);
    std::string expected = "ad-agent: loaded from " AGENT_LIBRARY "\n";
    for (const std::string& name : NOT_SUPPORTED) {
        EXPECT_EQ(library.call(name), AD_AGENT_NOT_SUPPORTED);
        expected += "ad-agent: " + name + ": not supported\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
    EXPECT_EQ(library.call("ad_agent_clear"), AD_AGENT_OK);
}

TEST_F(HostedLibrary, KeepsToTheVersionBuffer) {
    const auto get = library.entry<decltype(ad_agent_get_soversion)>("ad_agent_get_soversion");
    const auto set = library.entry<decltype(ad_agent_set_soversion)>("ad_agent_set_soversion");
    EXPECT_EQ(get(nullptr), AD_AGENT_FAILED);
    for (const std::string version : {"", "1.05", "12345678901234567890123456789"}) {
        ASSERT_EQ(set(version.empty() ? nullptr : version.c_str()), AD_AGENT_OK);
        std::array<char, 24> buffer = {};
        std::memset(buffer.data() + AD_AGENT_VERSION_BUFFER_SIZE, '#', 4);
        ASSERT_EQ(get(buffer.data()), AD_AGENT_OK);
        EXPECT_EQ(buffer.data(), version.empty() ? "0.00" : version.substr(0, 19));
        EXPECT_EQ(std::memcmp(buffer.data() + AD_AGENT_VERSION_BUFFER_SIZE, "####", 4), 0);
    }
    EXPECT_EQ(read_file(data + "/zelADAgentCache.xml"),
              "<Cache><SoVersion>12345678901234567890123456789</SoVersion></Cache>\n");
}

TEST_F(HostedLibrary, KnowsTheCopyThatDidNotLoad) {
    const std::string updatable = "/opt/usr/lib/libad-agent-fwk.so";
    for (const char* folder : {"/opt/usr/lib", "/opt/work"})
        std::filesystem::create_directories(folder);
    write_file("/opt/upper/libad-agent-fwk.so", read_file(AGENT_LIBRARY));
    if (mount("overlay", "/usr/lib", "overlay", 0,
              "lowerdir=/usr/lib,upperdir=/opt/upper,workdir=/opt/work") != 0)
        GTEST_SKIP() << "no right to mount over /usr/lib: " << std::strerror(errno);

    const auto expect_state = [&](const std::string& file, const std::string& line) {
        write_file(data + "/state.ini", "[installed]\nsha256=a1\nversion=1.06\nloaded=false\n");
        const Loaded copy(file.c_str());
        // By then the host has removed the copy that failed.
        std::filesystem::remove(updatable);
        EXPECT_EQ(copy.call("ad_agent_init"), AD_AGENT_OK);
        EXPECT_THAT(read_file(data + "/state.ini"), HasSubstr(line));
    };
    write_file(updatable, read_file(AGENT_LIBRARY));
    expect_state(updatable, "loaded=true");
    write_file(updatable, "no library");
    expect_state("/usr/lib/libad-agent-fwk.so", "[bad]\nsha256=a1;");
    expect_state("/usr/lib/libad-agent-fwk.so", "[bad]\nsha256=\n");
    umount2("/usr/lib", MNT_DETACH);
}

TEST_F(HostedLibrary, WorksInTheDevicesFolders) {
    const auto update = library.entry<decltype(ad_agent_update)>("ad_agent_update");
    const auto fetch = library.entry<decltype(ad_agent_config_server)>("ad_agent_config_server");
    testing::internal::CaptureStderr();
    EXPECT_EQ(update("0.00"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(fetch("/TileAd/v2"), AD_AGENT_FAILED);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("update: configuration /opt/etc/ad-agent.conf: No such file"));

    write_file("/opt/etc/ad-agent.conf", "[server]\nurl=file:///opt/web\n");
    write_file("/opt/web/TileAd/v2", "{}");
    write_file("/opt/web/images/a.img", "abc");
    write_file("/opt/web/update.ini",
               "[image]\nmin_firmware=T-1200.1\nmax_firmware=T-1200.1\nversion=1.06\nsize=3\n"
               "file=a.img\n"
               "sha256=ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n");
    EXPECT_EQ(fetch("/TileAd/v2"), AD_AGENT_OK);
    EXPECT_EQ(fetch(nullptr), AD_AGENT_FAILED);
    EXPECT_EQ(update("1.06"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(update("1.05"), AD_AGENT_UPDATE_DOWNLOADED);
    EXPECT_EQ(update(nullptr), AD_AGENT_UPDATE_DOWNLOADED);
    EXPECT_EQ(read_file(data + "/zelADAgent.img"), "abc");
    EXPECT_EQ(names_in(data),
              (Names{"TileAd-v2.json", "update.ini", "state.ini", "zelADAgent.img"}));
}

}  // namespace
