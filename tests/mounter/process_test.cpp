// What the process makes of itself before it works.

#include "process_start.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

namespace mounter_test {
namespace {

TEST(Environment, IsCleared) {
    setenv("LD_PRELOAD", "/stage/evil.so", 1);
    const auto prepare_and_exit = [] {
        const bool prepared = ad_mounter::prepare_process().ok();
        _exit(prepared && environ == nullptr ? 0 : 1);
    };
    EXPECT_EXIT(prepare_and_exit(), testing::ExitedWithCode(0), "");
    unsetenv("LD_PRELOAD");
}

}  // namespace
}  // namespace mounter_test
