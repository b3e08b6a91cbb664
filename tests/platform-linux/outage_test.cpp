/**
 * The daemon itself while its services are killed, over and over: before it
 * starts, while it starts, while it idles and in the middle of a change. It has
 * to live, and to hear of the next change.
 */
#include "platform_test.h"

#include <algorithm>
#include <csignal>
#include <optional>
#include <thread>

namespace platform_linux_test {

namespace {

constexpr int ROUNDS = 50;

enum Stage { BEFORE_START, DURING_START, IDLE, DURING_A_CHANGE, STAGES };

const char* const CONSENT = "db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree";

/** The real daemon on this platform's library. */
const std::vector<std::string> DAEMON = {"env", "LD_LIBRARY_PATH=" PLATFORM_FOLDER, ADAGENTD};

}  // namespace

class Outage : public PlatformTest, public testing::WithParamInterface<std::string> {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        if (IsSkipped()) return;
        // The daemon's files are its own, and the machine's stay as they are.
        must(
            "mountpoint -q /opt || { cd /run && mkdir -p opt opt-work && "
            "mount -t overlay -o lowerdir=/opt,upperdir=/run/opt,workdir=/run/opt-work opt /opt; "
            "}; mkdir -p /opt/media/Documents");
        write_setting(CONSENT, "0");
        connect_wired();
    }

    /** Kills the service at a stage of the daemon's life. */
    void break_service(Stage stage, int round) {
        if (stage == DURING_START) {
            daemon_.emplace(DAEMON);
            std::this_thread::sleep_for(round % 10 * 1ms);
        } else if (stage == DURING_A_CHANGE) {
            // The kill overtakes the writing; NetworkManager takes some tens of
            // milliseconds over a cable.
            shell("dconf write /db/menu_widget/language \"'" + std::to_string(round) +
                  "'\" >/dev/null 2>&1 & ip link set far0 down");
            std::this_thread::sleep_for(round % 20 * 5ms);
        }
        service("kill " + service_);
        if (stage == BEFORE_START) daemon_.emplace(DAEMON);
    }

    void setting_arrives(int round) {
        const std::string value = std::to_string(1000 + round);
        const std::string line = "value = " + value + "(int)";
        write_setting(CONSENT, value);
        ASSERT_TRUE(daemon_->sees(line));
        if (service_ == "log") {
            must("journalctl --sync; journalctl -t AD_DAEMON -a | grep -qF '" + line + "'");
        }
    }

    void network_arrives() {
        // It came back, which the daemon is told.
        ASSERT_TRUE(daemon_->sees("Check Profile is registered or not"))
            << shell("nmcli; ps ax; journalctl --no-pager -n 60 _COMM=NetworkManager").output;
        set_cable("down");
        ASSERT_TRUE(daemon_->sees("Unknown Type, 0"));
        set_cable("up");
        ASSERT_TRUE(daemon_->sees("Check Profile is registered or not"));
        ASSERT_TRUE(daemon_->sees("[CADAgentd] T&C is"));
    }

    const std::string service_ = GetParam();
    std::optional<Program> daemon_;
};

TEST_P(Outage, TheDaemonLivesAndHearsOfTheNextChange) {
    const bool of_network = service_.find("network") != std::string::npos;
    for (int round = 0; round < ROUNDS; ++round) {
        const auto stage = static_cast<Stage>(round % STAGES);
        SCOPED_TRACE("round " + std::to_string(round));
        break_service(stage, round);
        // It has all of its watches by then.
        if (stage == BEFORE_START || stage == DURING_START) {
            ASSERT_TRUE(daemon_->sees(" Network is "));
        }
        set_cable("up");
        service("start " + service_);
        if (of_network) {
            network_arrives();
        } else {
            setting_arrives(round);
        }
        ASSERT_TRUE(daemon_->alive()) << daemon_->transcript();
        ASSERT_FALSE(HasFailure());
    }
    kill(daemon_->pid(), SIGTERM);
    EXPECT_EQ(daemon_->finish(), 0) << daemon_->transcript();
}

INSTANTIATE_TEST_SUITE_P(Services, Outage,
                         testing::Values("session-bus", "settings", "network", "system-bus network",
                                         "log"),
                         [](const auto& service) {
                             std::string name = service.param;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace platform_linux_test
