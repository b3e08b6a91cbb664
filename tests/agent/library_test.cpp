// The built library's entry points, with the device's own paths.
#include "ad_agent.h"
#include "ad_player.h"
#include "base/glib_owned.h"
#include "files.h"
#include "system_information.h"

#include <cstring>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

int system_info_get_value_string(int /*key*/, char** value) {
    *value = strdup("T-1200.1");
    return 0;
}

namespace {

TEST(Library, LogsItsFileAndWhatItDoesNotSupport) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ad_agent_init(), AD_AGENT_OK);
    for (auto* const function :
         {ad_agent_register, ad_agent_unregister, ad_agent_request, ad_agent_request_sync,
          ad_agent_report, ad_agent_launch, ad_agent_psid_get}) {
        EXPECT_EQ(function(), AD_AGENT_NOT_SUPPORTED);
    }
    const auto lines = test_support::split_lines(testing::internal::GetCapturedStderr());
    EXPECT_EQ(lines.front(), "ad-agent: loaded from " AGENT_LIBRARY);
    EXPECT_EQ(lines.back(), "ad-agent: ad_agent_psid_get: not supported");
    EXPECT_EQ(ad_agent_clear(), AD_AGENT_OK);
    EXPECT_STRNE(ad_player_version(), "");
}

TEST(Library, UsesTheDevicesPathsAndAcceptsNullPointers) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/opt", "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "not permitted to mount over /opt";
    }
    using test_support::write_file;
    write_file("/opt/etc/ad-agent.conf", "[server]\nurl=file:///opt/web\n");
    write_file("/opt/web/TileAd/v2", "{}");
    // A trailer of the right form, with signatures of nothing but zeros.
    const std::string signature = "untrusted comment: signature from minisign secret key\nRUQ" +
                                  std::string(96, 'A') + "=\ntrusted comment: version:1.06 " +
                                  "min-firmware:T-1200.1\n" + std::string(86, 'A') + "==\n";
    const std::string image = "abc" + signature + "ADIMGSIG" + static_cast<char>(signature.size()) +
                              std::string("\1\0\0\1\0\0\0", 7);
    ASSERT_EQ(signature.size() >> 8, 1U);
    const base::Owned<char> sha256(
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, image.data(), gssize(image.size())));
    write_file("/opt/web/images/a.img", image);
    write_file("/opt/web/update.ini",
               "[image]\nmin_firmware=T-1200.1\nversion=1.06\nfile=a.img\nsize=" +
                   std::to_string(image.size()) + "\nsha256=" + sha256.get() + "\n");
    EXPECT_EQ(ad_agent_config_server("/TileAd/v2"), AD_AGENT_OK);
    EXPECT_EQ(ad_agent_config_server(nullptr), AD_AGENT_FAILED);
    EXPECT_EQ(ad_agent_update("1.06"), AD_AGENT_NO_UPDATE);
    EXPECT_EQ(ad_agent_update(nullptr), AD_AGENT_UPDATE_DOWNLOADED);
    EXPECT_EQ(ad_agent_get_soversion(nullptr), AD_AGENT_FAILED);
    for (const char* const version : {"12345678901234567890", static_cast<const char*>(nullptr)}) {
        std::string buffer(AD_AGENT_VERSION_BUFFER_SIZE + 4, '#');
        ASSERT_EQ(ad_agent_set_soversion(version), AD_AGENT_OK);
        ASSERT_EQ(ad_agent_get_soversion(buffer.data()), AD_AGENT_OK);
        EXPECT_STREQ(buffer.c_str(), version ? "1234567890123456789" : "0.00");
        EXPECT_EQ(buffer.substr(AD_AGENT_VERSION_BUFFER_SIZE), "####");
    }
    EXPECT_TRUE(std::filesystem::exists("/opt/usr/apps/adagent/zelADAgent.img"));
    umount2("/opt", MNT_DETACH);
}

}  // namespace
