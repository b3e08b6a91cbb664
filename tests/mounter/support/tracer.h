// Runs the tool under ptrace and decides at each of its system calls.
#ifndef MOUNTER_TEST_TRACER_H
#define MOUNTER_TEST_TRACER_H

#include "device.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace mounter_test {

struct SystemCall {
    pid_t process;
    long number;
    std::array<uint64_t, 6> arguments;
};

/**
 * What happens to a call: it is made, it fails instead with the errno `value`,
 * the process is killed before it, or it is made with another first argument.
 */
struct Decision {
    enum { proceed, fail, kill, replace_first_argument } what = proceed;
    int value = 0;
};

using Decide = std::function<Decision(const SystemCall&)>;

/** Whether this can be done here; else a reason. */
std::string missing_for_tracing();

/**
 * Runs the tool; `decide` sees every call that the tool itself makes, from all
 * of its threads, but none of its loader. A killed run has the status -SIGKILL.
 */
Result trace(const Device& device, const Words& words, const Decide& decide,
             RunOptions options = {});

/** The name of a call that the tests inject faults into; null for all others. */
const char* fault_name(const SystemCall& call);

/** Whether the call changes something outside of the process. */
bool is_mutating(const SystemCall& call);

}  // namespace mounter_test

#endif
