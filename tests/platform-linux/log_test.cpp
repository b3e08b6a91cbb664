/** The platform log on a real journald. */
#include "platform_test.h"

#include <csignal>

namespace platform_linux_test {

class Log : public PlatformTest {
protected:
    /** The messages in the journal that a probe wrote with this priority, a line each. */
    static std::string journal(const Probe& probe, int priority) {
        return shell("journalctl --sync; journalctl -q -o cat -a -t probe SYSLOG_FACILITY=3 _PID=" +
                     std::to_string(probe.pid()) + " PRIORITY=" + std::to_string(priority))
            .output;
    }
};

TEST_F(Log, LinesArriveWithTheirTagAndPriority) {
    Probe probe;
    const std::string text(4000, 'x');
    EXPECT_EQ(probe.ask("log 2 a line"), "13");
    probe.ask("log 16 100% \x1b[31m red: [1] tag: <3>");
    probe.ask("log 4 another priority");
    probe.ask("log 2 " + text);
    EXPECT_EQ(journal(probe, 6), "a line\n" + text + "\n");
    EXPECT_EQ(journal(probe, 3), "100% \x1b[31m red: [1] tag: <3>\n");
    EXPECT_EQ(journal(probe, 5), "another priority\n");

    probe.ask("log 4 " + std::string(20000, 'y'));
    EXPECT_GT(journal(probe, 5).size(), 8000U);
    EXPECT_LT(journal(probe, 5).size(), 8300U) << "an endless line is cut off";
}

TEST_F(Log, WithoutAListenerLinesGoToStandardError) {
    service("kill log");
    Probe probe;
    probe.send("log 16 nobody hears this");
    EXPECT_TRUE(probe.await("probe: nobody hears this", PATIENCE));
    service("start log");
    probe.ask("log 16 but this");
    EXPECT_EQ(journal(probe, 3), "but this\n");
}

TEST_F(Log, AHangingLoggerHoldsNothingUpForLong) {
    Probe probe;
    service("pause log");
    const auto begin = std::chrono::steady_clock::now();
    probe.send("log-burst 5000");
    EXPECT_TRUE(probe.sees("log-burst"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_NE(probe.transcript().find("probe: burst 4999"), std::string::npos)
        << "what the logger does not take goes to standard error";
    service("resume log");
    shell("journalctl --sync");
    probe.ask("log 16 heard again");
    EXPECT_EQ(journal(probe, 3), "heard again\n");
}

TEST_F(Log, ASignalHandlerMayLogAnyTime) {
    Probe probe;
    ASSERT_TRUE(probe.sees("ready"));
    probe.send("log-burst 3000");
    for (int i = 0; i < 200; ++i) {
        kill(probe.pid(), SIGUSR1);
        usleep(300);
    }
    EXPECT_TRUE(probe.sees("log-burst")) << "caught in a lock";
    EXPECT_NE(journal(probe, 3).find("from a signal handler"), std::string::npos);
}

}  // namespace platform_linux_test
