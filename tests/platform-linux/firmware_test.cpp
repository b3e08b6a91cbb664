/** The firmware version from os-release. */
#include "platform_test.h"

#include <fstream>

namespace platform_linux_test {

class Firmware : public PlatformTest {};

TEST_F(Firmware, TheImagesVersionComesBeforeTheDistributions) {
    const struct {
        const char* os_release;
        const char* answer;
    } cases[] = {{"VERSION_ID=12\nIMAGE_VERSION=T-1200.3\n", "0 T-1200.3"},
                 {"VERSION_ID=\"12.1\"\n", "0 12.1"},
                 {"IMAGE_VERSION='T 1200'\nVERSION_ID=12\n", "0 T 1200"},
                 {"IMAGE_VERSION=\nVERSION_ID=12\n", "0 12"},
                 {"NAME=Box\n", "-61 -"}};
    must("cp /etc/os-release /run/os-release; mount --bind /run/os-release /etc/os-release");
    Probe probe;
    for (const auto& [os_release, answer] : cases) {
        std::ofstream("/run/os-release") << os_release;
        // The same process sees each change.
        EXPECT_EQ(probe.ask("firmware"), answer) << os_release;
    }
}

}  // namespace platform_linux_test
