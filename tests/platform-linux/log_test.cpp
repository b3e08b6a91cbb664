/** The platform log on a real journald. */
#include "platform_test.h"

#include <csignal>

namespace platform_linux_test {

class Log : public PlatformTest {
protected:
    /** The probe's entries in the journal: priority, facility and message of each, a line each. */
    static std::string journal(const Probe& probe) {
        return shell("journalctl --sync; journalctl -t probe _PID=" + std::to_string(probe.pid()) +
                     " -o json --all | /usr/bin/python3 -c '\n"
                     "import json, sys\n"
                     "for line in sys.stdin:\n"
                     "    entry = json.loads(line)\n"
                     "    text = entry[\"MESSAGE\"]\n"
                     "    if isinstance(text, list): text = bytes(text).decode()\n"
                     "    print(entry[\"PRIORITY\"], entry[\"SYSLOG_FACILITY\"], repr(text))'")
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
    EXPECT_EQ(journal(probe),
              "6 3 'a line'\n"
              "3 3 '100% \\x1b[31m red: [1] tag: <3>'\n"
              "5 3 'another priority'\n"
              "6 3 '" +
                  text + "'\n");
}

TEST_F(Log, AnEndlessLineIsCutOff) {
    Probe probe;
    probe.ask("log 2 " + std::string(20000, 'y'));
    const std::string entries = journal(probe);
    EXPECT_GT(entries.size(), 8000U);
    EXPECT_LT(entries.size(), 8300U);
}

TEST_F(Log, WithoutAListenerLinesGoToStandardError) {
    service("kill log");
    Probe probe;
    probe.send("log 16 nobody hears this");
    EXPECT_TRUE(probe.await("probe: nobody hears this", PATIENCE));
    service("start log");
    probe.ask("log 16 but this");
    EXPECT_EQ(journal(probe), "3 3 'but this'\n");
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
    EXPECT_NE(journal(probe).find("heard again"), std::string::npos);
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
    EXPECT_NE(journal(probe).find("from a signal handler"), std::string::npos);
}

}  // namespace platform_linux_test
