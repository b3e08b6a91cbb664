// The built library's entry points, with the device's own paths.
#include "ad_agent.h"
#include "ad_player.h"
#include "files.h"

#include <cstring>
#include <iterator>
#include <map>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

namespace {

const std::map<std::string, int (*)()> NOT_SUPPORTED = {
    {"ad_agent_register", ad_agent_register}, {"ad_agent_unregister", ad_agent_unregister},
    {"ad_agent_request", ad_agent_request},   {"ad_agent_request_sync", ad_agent_request_sync},
    {"ad_agent_report", ad_agent_report},     {"ad_agent_launch", ad_agent_launch},
    {"ad_agent_psid_get", ad_agent_psid_get}};

TEST(Library, ExportsItsEntryPointsAndNothingElse) {
    Names expected = {"ad_agent_init",          "ad_agent_clear",         "ad_agent_update",
                      "ad_agent_set_soversion", "ad_agent_get_soversion", "ad_agent_config_server"};
    for (const auto& [name, function] : NOT_SUPPORTED) expected.insert(name);
    std::string names;
    ASSERT_EQ(run_in("/", "nm -D --defined-only --format=just-symbols " AGENT_LIBRARY, names), 0);
    std::istringstream list(names);
    EXPECT_EQ(Names(std::istream_iterator<std::string>(list), {}), expected);
}

TEST(Library, NamesItsFileAndWhatItDoesNotDo) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ad_agent_init(), AD_AGENT_OK);
    std::string expected = "ad-agent: loaded from " AGENT_LIBRARY "\n";
    for (const auto& [name, function] : NOT_SUPPORTED) {
        EXPECT_EQ(function(), AD_AGENT_NOT_SUPPORTED);
        expected += "ad-agent: " + name + ": not supported\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
    EXPECT_EQ(ad_agent_clear(), AD_AGENT_OK);
    EXPECT_STRNE(ad_player_version(), "");
}

TEST(Library, WorksInTheDevicesFoldersAndTakesNothing) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/opt", "tmpfs", 0, nullptr) != 0)
        GTEST_SKIP() << "no right to mount over /opt: " << std::strerror(errno);
    write_file("/opt/etc/ad-agent.conf", "[server]\nurl=file:///opt/web\n");
    write_file("/opt/web/TileAd/v2", "{}");
    write_file("/opt/web/images/a.img", "abc");
    write_file("/opt/web/update.ini",
               "[image]\nmin_firmware=T-1200.1\nmax_firmware=T-1200.1\nversion=1.06\nsize=3\n"
               "file=a.img\n"
               "sha256=ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n");
    EXPECT_EQ(ad_agent_config_server("/TileAd/v2"), AD_AGENT_OK);
    EXPECT_EQ(ad_agent_config_server(nullptr), AD_AGENT_FAILED);
    EXPECT_EQ(ad_agent_update("1.06"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(ad_agent_update(nullptr), AD_AGENT_UPDATE_DOWNLOADED);

    EXPECT_EQ(ad_agent_get_soversion(nullptr), AD_AGENT_FAILED);
    for (const char* version : std::vector<const char*>{"12345678901234567890123456789", nullptr}) {
        ASSERT_EQ(ad_agent_set_soversion(version), AD_AGENT_OK);
        std::string buffer(AD_AGENT_VERSION_BUFFER_SIZE + 4, '#');
        ASSERT_EQ(ad_agent_get_soversion(buffer.data()), AD_AGENT_OK);
        EXPECT_STREQ(buffer.c_str(), version ? "1234567890123456789" : "0.00");
        EXPECT_EQ(buffer.substr(AD_AGENT_VERSION_BUFFER_SIZE), "####");
    }
    EXPECT_EQ(names_in("/opt/usr/apps/adagent"), (Names{"TileAd-v2.json", "update.ini", "state.ini",
                                                        "zelADAgent.img", "zelADAgentCache.xml"}));
    umount2("/opt", MNT_DETACH);
}

}  // namespace
