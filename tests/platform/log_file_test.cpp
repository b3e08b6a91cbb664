#include "log_file.h"

#include "files.h"
#include "platform_log.h"

#include <ctime>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace test_support;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

/** The time of day while a test sets it. */
static timespec fake_time{};

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto real =
        reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (clock != CLOCK_REALTIME || fake_time.tv_sec == 0) {
        return real(clock, time);
    }
    *time = fake_time;
    return 0;
}

TEST(LogFile, WritesEachMessageAsOneLine) {
    const TemporaryDirectory directory;
    const std::string path = directory / "platform.log";
    simulated_platform::LogFile log(path.c_str());
    const std::string text(10000, 'x');
    fake_time = {1709251199, 7'999'999};
    log.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "type: %d", 3);
    fake_time = {4107542400, 0};
    log.print(PLATFORM_LOG_ERROR, "AD_DAEMON", "failed !!\n");
    fake_time = {1767225599, 999'000'000};
    log.print(7, nullptr, "one\ntwo\n\n");
    fake_time = {};
    EXPECT_EQ(log.print(PLATFORM_LOG_NORMAL, "T", "%s", text.c_str()), 4096);
    log.print(PLATFORM_LOG_NORMAL, text.c_str(), "%s", text.c_str());
    log.print(PLATFORM_LOG_NORMAL, "AD_DAEMON", "\033[31m red");
    EXPECT_THAT(
        split_lines(read_file(path)),
        ElementsAre("2024-02-29T23:59:59.007Z NORMAL AD_DAEMON type: 3",
                    "2100-03-01T00:00:00.000Z ERROR AD_DAEMON failed !!",
                    "2025-12-31T23:59:59.999Z 7 - one two", AllOf(SizeIs(4095), EndsWith("xxx...")),
                    SizeIs(4095), EndsWith("NORMAL AD_DAEMON \033[31m red")));
}
