/** The settings store on dconf, read and written with dconf(1). */
#include "platform_test.h"

#include <algorithm>
#include <optional>
#include <thread>

namespace platform_linux_test {

const std::string KEY = "db/test/value";

class Settings : public PlatformTest {
protected:
    void write(const std::string& value) { write_setting(KEY, value); }

    /** Starts a probe that watches the key. */
    Probe& watch(const std::vector<std::string>& command = {PROBE}) {
        probe_.emplace(command);
        EXPECT_EQ(probe_->ask("watch " + KEY), "0");
        return *probe_;
    }

    std::optional<Probe> probe_;
};

TEST_F(Settings, AWatchedKeyReportsEachChangeWithTypeAndValueAndIntegersCanBeRead) {
    Probe& probe = watch();
    const struct {
        const char* written;
        const char* event;
        const char* answer;
    } cases[] = {{"1", "41 1", "0 1"},
                 {"0", "41 0", "0 0"},
                 {"-2147483648", "41 -2147483648", "0 -2147483648"},
                 {"'1'", "115 0", "-22 -77"},
                 {"true", "98 0", "-22 -77"},
                 {"1.5", "100 0", "-22 -77"},
                 {"uint32 7", "117 0", "-22 -77"},
                 {"['a']", "97 0", "-22 -77"},
                 {"1", "41 1", "0 1"}};
    EXPECT_EQ(probe.ask("get " + KEY), "-2 -77") << "a missing key";
    for (const auto& [written, event, answer] : cases) {
        write(written);
        EXPECT_TRUE(probe.sees("setting " + KEY + " " + event + " first")) << written;
        EXPECT_EQ(probe.ask("get " + KEY), answer) << written;
    }
    must("dconf reset /" + KEY);
    EXPECT_TRUE(probe.sees("setting " + KEY + " 0 0 first")) << "a key without a value";
    EXPECT_EQ(probe.ask("get " + KEY), "-2 -77");
    EXPECT_EQ(probe.ask("get db/test/"), "-22 -77") << "a folder";
}

TEST_F(Settings, OnlyChangesOfTheKeyAreReportedToEveryWatch) {
    write("1");
    Probe& probe = watch();
    ASSERT_EQ(probe.ask("watch " + KEY), "0");
    ASSERT_EQ(probe.ask("watch db/test/other"), "0");
    write("1");
    write_setting("db/test/value2", "2");
    write_setting("db/test/valu", "2");
    write_setting("db/test/value/below", "2");
    must("dconf reset -f /db/another/");
    EXPECT_TRUE(probe.sees_no("setting", 150ms));
    // Below a folder that is reset or loaded, dconf names the folder, not the key.
    must("dconf reset -f /db/");
    EXPECT_TRUE(probe.sees("setting db/test/value 0 0 first"));
    EXPECT_TRUE(probe.sees("setting db/test/value 0 0 again"));
    EXPECT_TRUE(probe.sees_no("setting", 100ms));
    must("printf '[test]\\nvalue=5\\nmore=6\\n' | dconf load /db/");
    EXPECT_TRUE(probe.sees("setting db/test/value 41 5"));
}

TEST_F(Settings, AChangeDuringABusyMainLoopIsReportedAfterIt) {
    write("1");
    Probe& probe = watch();
    probe.send("block /run/go-on");
    write("0");
    std::this_thread::sleep_for(100ms);  // one that came and went unseen is no change
    write("1");
    std::this_thread::sleep_for(100ms);
    must("touch /run/go-on");
    // Gone and back again meanwhile: who reacts to 1 has a reason to once more.
    EXPECT_TRUE(probe.sees("setting db/test/value 41 1"));
    EXPECT_TRUE(probe.sees_no("setting", 100ms));
}

TEST_F(Settings, AServiceWithoutASessionUsesRootsBus) {
    // As a system unit has it; nor does it share dconf's mark of changes then.
    Probe& probe = watch({"env", "-u", "XDG_RUNTIME_DIR", PROBE});
    for (int value = 1; value < 4; ++value) {
        const std::string text = std::to_string(value);
        write(text);
        EXPECT_TRUE(probe.sees("setting db/test/value 41 " + text));
        EXPECT_EQ(probe.ask("get db/test/value"), "0 " + text);
    }
}

// --- Without the services ----------------------------------------------------

TEST_F(Settings, ABusThatIsMissingAtFirstOrLaterIsHeardAgainWithWhatChangedMeanwhile) {
    for (const int outage : {1, 2}) {
        service("kill session-bus");
        Probe& probe = probe_ ? *probe_ : watch();
        // A bus that nobody else is on, over the same database.
        const std::string value = std::to_string(outage);
        must("dbus-run-session -- dconf write /" + KEY + " " + value);
        EXPECT_EQ(probe.ask("get " + KEY), "0 " + value) << "reading needs no bus";
        EXPECT_TRUE(probe.sees_no("setting", 300ms));
        // One line says that the bus is missing, however often it was tried.
        const std::string log = shell(
                                    "journalctl --sync; journalctl -o cat -t ad-platform "
                                    "-g 'ad-settings.*/run/user/0/bus' _PID=" +
                                    std::to_string(probe.pid()))
                                    .output;
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), outage) << log;
        service("start session-bus");
        EXPECT_TRUE(probe.sees("setting db/test/value 41 " + value));
        write("8");
        EXPECT_TRUE(probe.sees("setting db/test/value 41 8"));
    }
}

TEST_F(Settings, AHangingBusHoldsNothingUp) {
    service("pause session-bus");
    const auto begin = std::chrono::steady_clock::now();
    Probe& probe = watch();
    EXPECT_EQ(probe.ask("get db/test/value"), "-2 -77");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
    service("resume session-bus");
    write("1");
    EXPECT_TRUE(probe.sees("setting db/test/value 41 1"));
}

}  // namespace platform_linux_test
