// The device leaves nothing on the machine, however it ends.
#include "device.h"

#include <algorithm>
#include <memory>

namespace device_tests {

class ForegroundDevice : public EachPlatform {};
ON_EACH_PLATFORM(ForegroundDevice);

TEST_P(ForegroundDevice, EndsWithWhoeverRunsIt) {
    device.install("1.05");
    write_file(device.home("/run/daemon.log"), "");
    const std::string start = device.command_line("start --foreground --preload " SHORT_WAITS);
    auto owner =
        std::make_unique<LineProcess>(std::vector<std::string>{"bash", "-c", start + " & wait"});
    ASSERT_TRUE(device.await("Version = 1.05"));
    // One that nobody has waited for yet has ended too.
    const std::string state = "ps -o state= -p " + std::to_string(device.daemon_pid());
    const auto alive = [&state] { return shell(state + " | grep -q '^[^Z]'").status == 0; };
    ASSERT_TRUE(alive());

    owner.reset();  // SIGKILL, without a chance to clean up
    EXPECT_TRUE(poll([&] { return !alive(); }));
    EXPECT_TRUE(poll([&] { return device.leftovers().empty(); }));
}

TEST(DeviceItself, AMountedImageGoesWithThePlug) {
    const Device device;
    device.install("1.05");
    // Unmounting fails, so the image is mounted when the power goes.
    device.break_mounter("--umount");
    ASSERT_TRUE(device.boot());
    EXPECT_NE(device.leftovers(), "");
    device.command("kill");
    EXPECT_TRUE(poll([&] { return device.leftovers().empty(); }));
}

TEST(DeviceItself, StartsOnceHoweverManyAskAndIsSetWhileItStarts) {
    const Device device("linux");
    const Outcome started =
        shell("for i in 1 2 3 4; do " + device.command_line("start") + " & done; sleep 0.05; " +
              device.command_line("set language it_IT || echo not set; ") +
              device.command_line("set network up || echo not plugged; wait"));
    EXPECT_EQ(std::count(started.output.begin(), started.output.end(), '\n'), 3) << started.output;
    EXPECT_EQ(device.command("exec dconf read /db/menu_widget/language"), "'it_IT'\n");
    EXPECT_TRUE(device.await("CONNECTION_TYPE_ETHERNET"));
    device.command("kill");
    EXPECT_EQ(shell("pgrep -f '[a]d-device-init " + device.home() + "'").output, "");
}

TEST(DeviceItself, RefusesWhatItCannotDoInOneLine) {
    const Device device;
    for (const std::string wrong : {"create", "set network sideways", "set consent perhaps", "set",
                                    "dance", "publish one", "start --under nothing-of-this-name"}) {
        const Outcome result = shell(device.command_line(wrong));
        EXPECT_NE(result.status, 0) << wrong;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

}  // namespace device_tests
