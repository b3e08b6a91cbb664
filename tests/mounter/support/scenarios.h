// The verbs as scenarios: from a known state to a known state.
#ifndef MOUNTER_TEST_SCENARIOS_H
#define MOUNTER_TEST_SCENARIOS_H

#include "device.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace mounter_test {

struct Scenario {
    std::string name;
    Words words;
    /** Brings the device into the state before, whatever was there. */
    std::function<void(const Device&)> prepare;
    /** What is changed: the state is what is seen there. */
    Words changed;
    /** Further paths that are walked. */
    Words walked;
    /** The status of a run that finds everything done. */
    int done_status = 0;
    /** Whether the old may be gone before the new is there. */
    bool gap = false;
};

std::vector<Scenario> scenarios();

/** What is seen at the paths that the scenario changes. */
std::vector<Snapshot> state(const Device& device, const Scenario& scenario);

/** How GoogleTest prints one. */
void PrintTo(const Scenario& scenario, std::ostream* out);

inline std::string scenario_name(const testing::TestParamInfo<Scenario>& info) {
    return info.param.name;
}

}  // namespace mounter_test

#endif
