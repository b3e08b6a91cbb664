#include "log_file.h"

#include "files.h"
#include "platform_log.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

using simulated_platform::LogFile;
using simulated_platform_tests::lines_of;
using simulated_platform_tests::TemporaryFolder;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::SizeIs;

namespace {

class LogFileTest : public testing::Test {
protected:
    TemporaryFolder folder_;
    std::string path_ = folder_.file("platform.log");
    LogFile log_{path_.c_str()};
};

LogFile* interrupted_log = nullptr;
volatile std::sig_atomic_t interruptions = 0;

}  // namespace

TEST_F(LogFileTest, EachMessageIsOneLine) {
    const std::string text(10000, 'x');
    const std::time_t before = std::time(nullptr);
    log_.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "type: %d", 3);
    const std::time_t after = std::time(nullptr);
    log_.print(PLATFORM_LOG_ERROR, "AD_DAEMON", "failed !!\n");
    log_.print(7, nullptr, "one\ntwo\n\n");
    EXPECT_EQ(log_.print(PLATFORM_LOG_NORMAL, "T", "%s", text.c_str()), 4096);
    log_.print(PLATFORM_LOG_NORMAL, text.c_str(), "%s", text.c_str());
    log_.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "\033[31m red");
    const std::string time = "....-..-..T..:..:...[0-9][0-9][0-9]Z ";
    const std::vector<std::string> lines = lines_of(path_);
    ASSERT_THAT(lines, ElementsAre(MatchesRegex(time + "NORMAL AD_DAEMON type: 3"),
                                   MatchesRegex(time + "ERROR AD_DAEMON failed !!"),
                                   MatchesRegex(time + "7 - one two"),
                                   AllOf(SizeIs(4095), EndsWith("xxx...")), SizeIs(4095),
                                   EndsWith("NORMAL AD_DAEMON \033[31m red")));
    std::tm fields{};
    const char* const first = lines[0].c_str();
    ASSERT_EQ(strptime(first, "%Y-%m-%dT%H:%M:%S", &fields), first + 19) << first;
    EXPECT_GE(timegm(&fields), before);
    EXPECT_LE(timegm(&fields), after);
}

TEST_F(LogFileTest, FollowsItsNameAndWaitsForItsFolder) {
    const std::string path = folder_.file("later/platform.log");
    LogFile log(path.c_str());
    errno = EDOM;
    EXPECT_EQ(log.print(PLATFORM_LOG_NORMAL, "T", "lost"), -ENOENT);
    EXPECT_EQ(errno, EDOM);
    std::filesystem::create_directory(folder_.file("later"));
    log.print(PLATFORM_LOG_NORMAL, "T", "first");
    std::filesystem::rename(path, path + ".1");
    std::ofstream(path) << "rotated\n";
    log.print(PLATFORM_LOG_NORMAL, "T", "second");
    std::filesystem::copy(path, path + ".2");
    std::filesystem::remove(path);
    log.print(PLATFORM_LOG_NORMAL, "T", "third");
    EXPECT_THAT(lines_of(path + ".1"), ElementsAre(EndsWith("T first")));
    EXPECT_THAT(lines_of(path + ".2"), ElementsAre("rotated", EndsWith("T second")));
    EXPECT_THAT(lines_of(path), ElementsAre(EndsWith("T third")));
}

/** A handler's lines fall between the interrupted ones, whole, and none is lost. */
TEST_F(LogFileTest, TakesLinesFromASignalHandler) {
    interrupted_log = &log_;
    const auto earlier = std::signal(SIGALRM, [](int) {
        if (interrupted_log->print(PLATFORM_LOG_ERROR, "SIGNAL", "%s %d", "the handler", 7) > 0)
            interruptions = interruptions + 1;
    });
    const itimerval often{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
    int printed = 0;
    while (printed < 2000 || (interruptions < 20 && printed < 1000000))
        ASSERT_GT(log_.print(PLATFORM_LOG_NORMAL, "MAIN", "%d of %s", printed++, "many"), 0);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    std::signal(SIGALRM, earlier);

    int from_main = 0;
    int from_handler = 0;
    for (const std::string& line : lines_of(path_)) {
        const std::string rest = line.substr(line.find('Z'));
        const bool handlers = rest == "Z ERROR SIGNAL the handler 7";
        const int number = handlers ? from_handler++ : from_main++;
        EXPECT_TRUE(handlers || rest == "Z NORMAL MAIN " + std::to_string(number) + " of many");
    }
    EXPECT_EQ(from_main, printed);
    EXPECT_EQ(from_handler, interruptions);
    EXPECT_GE(from_handler, 20);
}
