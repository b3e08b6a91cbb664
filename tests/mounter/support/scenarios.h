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
    std::string changed;
    /** A further path that is walked. */
    std::string walked;
    /** Whether the old may be gone before the new is there. */
    bool gap = false;
};

std::vector<Scenario> scenarios();

/** How GoogleTest prints one. */
inline void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

}  // namespace mounter_test

#endif
