// Every call that can fail fails once, and every run is killed once before each
// call that changes something: what is there is the old or the new, and the
// next run brings everything in order.

#include "support/device.h"
#include "support/scenarios.h"
#include "support/tracer.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include <gtest/gtest.h>

namespace mounter_test {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int errors[] = {EIO};
#else
constexpr int errors[] = {ENOSPC, EIO, EROFS, EACCES, EBUSY, EMFILE};
#endif

class Faults : public DeviceTest, public testing::WithParamInterface<Scenario> {
protected:
    void SetUp() override {
        const std::string missing = missing_for_tracing();
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
        DeviceTest::SetUp();
    }

    // The states before and after, and an undisturbed run's calls of a kind.
    template <typename Interesting>
    size_t learn(const Interesting& interesting) {
        scenario().prepare(device());
        before_ = state(device(), scenario());
        size_t count = 0;
        const Result result =
            trace(device(), scenario().words, [&](const SystemCall& call) -> Decision {
                count += interesting(call) ? 1 : 0;
                return {};
            });
        EXPECT_EQ(result.status, 0) << result.err;
        after_ = state(device(), scenario());
        EXPECT_NE(before_, after_);
        return count;
    }

    // Runs with `decision` at the call number `at` of a kind.
    template <typename Interesting>
    Result disturb(const Interesting& interesting, size_t at, const Decision& decision) {
        scenario().prepare(device());
        size_t count = 0;
        return trace(device(), scenario().words, [&](const SystemCall& call) -> Decision {
            if (!interesting(call) || count++ != at) {
                return {};
            }
            disturbed_ = call;
            return decision;
        });
    }

    void check_old_or_new(const Result& result) {
        const auto now = state(device(), scenario());
        const bool between = scenario().gap && device().mounts().empty();
        EXPECT_TRUE(now == before_ || now == after_ || between) << "neither old nor new";
        if (result.status == 0) {
            EXPECT_EQ(now, after_) << "success, but not done";
        }
        if (result.status > 0) {
            EXPECT_TRUE(is_one_line(result));
            const bool documented = result.status == 65 || result.status == 66 ||
                                    (result.status >= 70 && result.status <= 77);
            EXPECT_TRUE(documented) << result.status;
        }
        const bool download_lost = !scenario().walked.empty() &&
                                   scenario().walked[0] == downloaded_image &&
                                   !device().exists(downloaded_image);
        EXPECT_TRUE(!download_lost || now == after_) << "the download is gone too early";
    }

    void check_rerun() {
        const bool done = state(device(), scenario()) == after_;
        const Result again = device().run(scenario().words);
        EXPECT_TRUE(again.status == 0 || (done && again.status == scenario().done_status))
            << again.status << ' ' << again.err;
        EXPECT_EQ(state(device(), scenario()), after_);
        EXPECT_EQ(device().leftovers(), Words());
        EXPECT_LE(device().mounts().size(), 1U);
        EXPECT_LE(device().loop_devices().size(), device().mounts().size());
    }

    static const Scenario& scenario() { return GetParam(); }
    std::string where(const char* what) const {
        const char* name = fault_name(disturbed_);
        return std::string(what) + " at " +
               (name != nullptr ? name : "call " + std::to_string(disturbed_.number));
    }

private:
    std::vector<Snapshot> before_;
    std::vector<Snapshot> after_;
    SystemCall disturbed_ = {};
};

TEST_P(Faults, EachFailingCallLeavesOldOrNew) {
    const auto interesting = [](const SystemCall& call) { return fault_name(call) != nullptr; };
    const size_t count = learn(interesting);
    size_t tried = 0;
    for (size_t at = 0; at < count && !HasFailure(); ++at) {
        for (const int error : errors) {
            const Result result = disturb(interesting, at, {Decision::fail, error});
            SCOPED_TRACE(where(strerror(error)) + ", point " + std::to_string(at));
            check_old_or_new(result);
            check_rerun();
            ++tried;
        }
    }
    std::cout << scenario().name << ": " << tried << " failing calls tried (" << count
              << " points)\n";
}

TEST_P(Faults, EachKillLeavesOldOrNew) {
    const size_t count = learn(is_mutating);
    ASSERT_GT(count, 1U);
    for (size_t at = 0; at < count && !HasFailure(); ++at) {
        const Result result = disturb(is_mutating, at, {Decision::kill, 0});
        SCOPED_TRACE(where("killed") + ", point " + std::to_string(at));
        EXPECT_EQ(result.status, -SIGKILL);
        check_old_or_new(result);
        check_rerun();
    }
    std::cout << scenario().name << ": killed at " << count << " points\n";
}

INSTANTIATE_TEST_SUITE_P(Verbs, Faults, testing::ValuesIn(scenarios()), scenario_name);

}  // namespace
}  // namespace mounter_test
