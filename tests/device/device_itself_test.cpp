// The device leaves nothing on the machine, however it ends.
#include "device.h"

#include <memory>

#include <gtest/gtest.h>

namespace device_tests {
namespace {

/** True for a process that has not ended; one that nobody has waited for yet has. */
bool alive(int pid) {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

class ForegroundDevice : public EachPlatform {};
ON_EACH_PLATFORM(ForegroundDevice);

TEST_P(ForegroundDevice, EndsWithWhoeverRunsIt) {
    device.publish("1.05");
    device.run_update();
    write_file(device.home("/run/daemon.log"), "");
    auto owner = std::make_unique<LineProcess>(std::vector<std::string>{
        "bash", "-c", "\"$@\" & wait", "owner", AD_DEVICE, "--build", BUILD_FOLDER, "--dir",
        device.home(""), "start", "--foreground", "--preload", SHORT_WAITS});
    ASSERT_TRUE(poll([&] { return device.logged("Version = 1.05"); }));
    const int daemon = device.daemon_pid();
    ASSERT_TRUE(alive(daemon));

    owner.reset();  // SIGKILL, without a chance to clean up
    EXPECT_TRUE(poll([&] { return !alive(daemon); }));
    EXPECT_TRUE(poll([&] { return device.leftovers().empty(); })) << device.leftovers();
}

TEST(DeviceItself, AMountedImageGoesWithThePlug) {
    const Device device;
    device.publish("1.05");
    device.run_update();
    // Unmounting fails, so the image is mounted when the power goes.
    device.break_mounter("--umount");
    device.start();
    ASSERT_TRUE(device.await("[CADAgentd] Start end"));
    EXPECT_NE(device.leftovers(), "");
    device.command({"kill"});
    EXPECT_TRUE(poll([&] { return device.leftovers().empty(); })) << device.leftovers();
}

TEST(DeviceItself, StartsOnceHoweverManyAskAndIsSetWhileItStarts) {
    const Device device("linux");
    const std::string ad_device = AD_DEVICE " --build " BUILD_FOLDER " --dir '" + device.home("'");
    const Outcome started =
        run({"sh", "-c",
             "for i in 1 2 3 4; do " + ad_device + " start & done; sleep 0.05; " + ad_device +
                 " set language it_IT || echo not set; " + ad_device +
                 " set network up || echo not plugged; wait"});
    EXPECT_EQ(std::count(started.output.begin(), started.output.end(), '\n'), 3) << started.output;
    EXPECT_EQ(device.command({"exec", "dconf", "read", "/db/menu_widget/language"}), "'it_IT'\n");
    EXPECT_TRUE(device.await("CONNECTION_TYPE_ETHERNET"));
    device.command({"kill"});
    EXPECT_EQ(run({"pgrep", "-f", "ad-device-supply " + device.home("")}).output, "");
}

TEST(DeviceItself, RefusesWhatItCannotDoInOneLine) {
    const Device device;
    const std::string home = device.home("");
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"create"},
                                               {"set", "network", "sideways"},
                                               {"set", "consent", "perhaps"},
                                               {"set"},
                                               {"dance"},
                                               {"publish", "one"},
                                               {"start", "--under", "nothing-of-this-name"}}) {
        std::vector<std::string> line{AD_DEVICE, "--build", BUILD_FOLDER, "--dir", home};
        line.insert(line.end(), arguments.begin(), arguments.end());
        const Outcome result = run(line);
        EXPECT_NE(result.status, 0) << arguments[0];
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

}  // namespace
}  // namespace device_tests
