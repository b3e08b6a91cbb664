#include "ADLog.h"
#include "recorder.h"

namespace daemon_tests {
namespace {

class DiagnosticLog : public DaemonTest {};

// The thread ids count on from 5000000000, so each line shows the one it asked for.
TEST_F(DiagnosticLog, WritesEachStatementToBothSinks) {
    const std::string line = std::to_string(__LINE__ + 1);
    AD_LOG("key %s = %d", "a", 7);
    EXPECT_EQ(platform_text, "log_test.cpp: TestBody(" + line + ") > \x1b[0m [TestBody:" + line +
                                 "] [Thread Id:[5000000000]] key a = 7");
    EXPECT_EQ(output_text, "\x1b[0m [(Thread Id:5000000001): TestBody(" + line + ")] key a = 7\n");

    const std::string next = std::to_string(__LINE__ + 1);
    AD_LOG_ERR("Unknown Type(%d)\n", 40);
    EXPECT_EQ(platform_text, "log_test.cpp: TestBody(" + next + ") > \x1b[31m [TestBody:" + next +
                                 "] [Thread Id:[5000000002]] Unknown Type(40)\n");
    EXPECT_EQ(output_text,
              "\x1b[31m [(Thread Id:5000000003): TestBody(" + next + ")] Unknown Type(40)\n\n");
    EXPECT_EQ(transcript(), "N key a = 7\nE Unknown Type(40)\\n\n");
}

}  // namespace
}  // namespace daemon_tests
