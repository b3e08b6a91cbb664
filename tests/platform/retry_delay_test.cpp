#include "linux/retry_delay.h"

#include <algorithm>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

TEST(RetryDelay, DoublesUpToThreeSecondsAndStartsOver) {
    linux_platform::RetryDelay delay;
    std::vector<unsigned> delays(8);
    std::generate(delays.begin(), delays.end(), [&delay] { return delay.next_ms(); });
    EXPECT_THAT(delays, testing::ElementsAre(50, 100, 200, 400, 800, 1600, 3000, 3000));
    delay.reset();
    EXPECT_EQ(delay.next_ms(), 50);
}
