// Every call that can fail fails once, and every run is killed once before each
// call that changes something: what is there is the old or the new, and the
// next run brings everything in order.

#include "support/device.h"
#include "support/scenarios.h"
#include "support/tracer.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace mounter_test {
namespace {

// Stands among the errors for the death of the process.
constexpr int killed = 0;

class Faults : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    using Interesting = bool (*)(const SystemCall&);

    void disturb_each(Interesting interesting, const std::vector<int>& errors) {
        prepare_state();
        before_ = state();
        size_t count = 0;
        EXPECT_TRUE(ended(disturb(interesting, SIZE_MAX, killed, count), 0));
        after_ = state();
        EXPECT_NE(before_, after_);
        ASSERT_GT(count, 1U);
        for (size_t at = 0; at < count && !HasFailure(); ++at) {
            for (const int error : errors) {
                prepare_state();
                size_t seen = 0;
                const Result result = disturb(interesting, at, error, seen);
                SCOPED_TRACE(disturbed_ + ": " + (error == killed ? "killed" : strerror(error)) +
                             ", point " + std::to_string(at));
                EXPECT_EQ(result.status == -SIGKILL, error == killed);
                check_old_or_new(result);
                check_rerun();
            }
        }
    }

private:
    static const Scenario& scenario() { return GetParam(); }
    static bool replaces() { return scenario().walked == downloaded_image; }
    void prepare_state() { scenario().prepare(device()); }
    Snapshot state() { return device().snapshot(scenario().changed); }

    // Runs with the error at the call number `at` of a kind.
    Result disturb(Interesting interesting, size_t at, int error, size_t& count) {
        return trace(device(), scenario().words, [&](const SystemCall& call) {
            if (!interesting(call) || count++ != at) {
                return 0;
            }
            disturbed_ = name_of(call);
            if (error == killed) {
                kill(call.process, SIGKILL);
            }
            return error;
        });
    }

    void check_old_or_new(const Result& result) {
        const Snapshot now = state();
        const bool between = scenario().gap && device().mounts().empty();
        EXPECT_TRUE(now == before_ || now == after_ || between) << "neither old nor new";
        if (result.status >= 0) {
            EXPECT_TRUE(ended(result, result.status));
            EXPECT_TRUE(result.status == 0 || (result.status >= 65 && result.status <= 77));
        }
        EXPECT_TRUE(result.status != 0 || now == after_) << "success, but not done";
        EXPECT_TRUE(!replaces() || device().exists(downloaded_image) || now == after_)
            << "the download is gone too early";
    }

    void check_rerun() {
        const bool done = state() == after_;
        const Result again = device().run(scenario().words);
        // Nothing is left to be put in place when it is there.
        EXPECT_TRUE(ended(again, done && replaces() && again.status != 0 ? 66 : 0));
        EXPECT_EQ(state(), after_);
        EXPECT_TRUE(device().is_clean(1));
    }

    Snapshot before_;
    Snapshot after_;
    std::string disturbed_;
};

TEST_P(Faults, EachFailingCallLeavesOldOrNew) {
#ifdef __SANITIZE_ADDRESS__
    disturb_each(is_faulty, {EIO});
#else
    disturb_each(is_faulty, {ENOSPC, EIO, EROFS, EACCES, EBUSY, EMFILE});
#endif
}

TEST_P(Faults, EachKillLeavesOldOrNew) { disturb_each(is_mutating, {killed}); }

INSTANTIATE_TEST_SUITE_P(Verbs, Faults, testing::ValuesIn(scenarios()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace mounter_test
