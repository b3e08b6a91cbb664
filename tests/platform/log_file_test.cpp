#include "log_file.h"

#include "files.h"
#include "platform_log.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

using simulated_platform::LogFile;
using simulated_platform_tests::lines_of;
using simulated_platform_tests::TemporaryFolder;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;

namespace {

class LogFileTest : public testing::Test {
protected:
    TemporaryFolder folder_;
    std::string path_ = folder_.file("platform.log");
    LogFile log_{path_.c_str()};
};

LogFile* interrupted_log = nullptr;
std::atomic<int> interruptions{0};

void log_from_signal(int) {
    if (interrupted_log->print(PLATFORM_LOG_ERROR, "SIGNAL", "%s %d", "from the handler", 7) > 0)
        ++interruptions;
}

}  // namespace

TEST_F(LogFileTest, EachMessageIsOneLine) {
    log_.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "type: %d", 3);
    log_.print(PLATFORM_LOG_ERROR, "AD_DAEMON", "failed !!\n");
    log_.print(7, nullptr, "one\ntwo\n\n");
    log_.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "\033[31m red");
    const std::string time = "[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+.[0-9]+Z ";
    EXPECT_THAT(lines_of(path_), ElementsAre(MatchesRegex(time + "NORMAL AD_DAEMON type: 3"),
                                             MatchesRegex(time + "ERROR AD_DAEMON failed !!"),
                                             MatchesRegex(time + "7 - one two"),
                                             EndsWith("NORMAL AD_DAEMON \033[31m red")));
}

TEST_F(LogFileTest, TheTimeIsTheClocks) {
    const std::time_t before = std::time(nullptr);
    log_.print(PLATFORM_LOG_NORMAL, "T", "now");
    const std::time_t after = std::time(nullptr);
    const std::string line = lines_of(path_).at(0);
    std::tm fields{};
    ASSERT_STREQ(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &fields), line.c_str() + 19) << line;
    EXPECT_EQ(line.size(), std::string("2000-01-01T00:00:00.000Z NORMAL T now").size());
    const std::time_t written = timegm(&fields);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST_F(LogFileTest, ALongMessageIsCutToOneLine) {
    const std::string text(10000, 'x');
    EXPECT_EQ(log_.print(PLATFORM_LOG_NORMAL, "T", "%s", text.c_str()), 4096);
    log_.print(PLATFORM_LOG_NORMAL, text.c_str(), "%s", text.c_str());
    log_.print(PLATFORM_LOG_NORMAL, "T", "next");
    const std::vector<std::string> lines = lines_of(path_);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].size(), 4095U);
    EXPECT_THAT(lines[0], EndsWith("xxx..."));
    EXPECT_EQ(lines[1].size(), 4095U);
    EXPECT_THAT(lines[2], EndsWith("T next"));
}

TEST_F(LogFileTest, FollowsTheNameWhenTheFileIsRemovedOrRenamed) {
    log_.print(PLATFORM_LOG_NORMAL, "T", "first");
    std::filesystem::rename(path_, path_ + ".1");
    std::ofstream(path_) << "rotated\n";
    log_.print(PLATFORM_LOG_NORMAL, "T", "second");
    std::filesystem::copy(path_, path_ + ".2");
    std::filesystem::remove(path_);
    log_.print(PLATFORM_LOG_NORMAL, "T", "third");
    EXPECT_THAT(lines_of(path_ + ".1"), ElementsAre(EndsWith("first")));
    EXPECT_THAT(lines_of(path_), ElementsAre(EndsWith("third")));
    EXPECT_THAT(lines_of(path_ + ".2"), ElementsAre("rotated", EndsWith("second")));
}

TEST_F(LogFileTest, WithoutItsFolderItFailsAndGoesOn) {
    const std::string below = folder_.file("later");
    const std::string path = below + "/platform.log";
    LogFile log(path.c_str());
    errno = EDOM;
    EXPECT_EQ(log.print(PLATFORM_LOG_NORMAL, "T", "lost"), -ENOENT);
    EXPECT_EQ(errno, EDOM);
    std::filesystem::create_directory(below);
    EXPECT_GT(log.print(PLATFORM_LOG_NORMAL, "T", "kept"), 0);
    EXPECT_THAT(lines_of(path), ElementsAre(EndsWith("T kept")));
}

TEST_F(LogFileTest, AForcedResultWritesNothing) {
    log_.print(PLATFORM_LOG_NORMAL, "T", "one");
    log_.force_result(-3);
    EXPECT_EQ(log_.print(PLATFORM_LOG_NORMAL, "T", "two"), -3);
    log_.force_result(0);
    log_.print(PLATFORM_LOG_NORMAL, "T", "three");
    EXPECT_THAT(lines_of(path_), ElementsAre(EndsWith("one"), EndsWith("three")));
}

/** A handler's lines fall between the interrupted ones, whole, and none is lost. */
TEST_F(LogFileTest, TakesLinesFromASignalHandler) {
    interrupted_log = &log_;
    interruptions = 0;
    const auto earlier = std::signal(SIGALRM, log_from_signal);
    const itimerval often{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &often, nullptr);
    int printed = 0;
    while (printed < 2000 || (interruptions < 20 && printed < 1000000)) {
        ASSERT_GT(log_.print(PLATFORM_LOG_NORMAL, "MAIN", "%d of %s", printed, "many"), 0);
        ++printed;
    }
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    std::signal(SIGALRM, earlier);

    int from_main = 0;
    int from_handler = 0;
    for (const std::string& line : lines_of(path_)) {
        const std::string rest = line.substr(line.find('Z') + 1);
        if (rest == " ERROR SIGNAL from the handler 7") {
            ++from_handler;
        } else {
            EXPECT_EQ(rest, " NORMAL MAIN " + std::to_string(from_main++) + " of many");
        }
    }
    EXPECT_EQ(from_main, printed);
    EXPECT_EQ(from_handler, interruptions);
    EXPECT_GE(from_handler, 20);
}
