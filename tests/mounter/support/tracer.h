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

/** Gives 0 for a call that is made, or the errno that it fails with instead. */
using Decide = std::function<int(const SystemCall&)>;

/**
 * Runs the tool; `decide` sees every call that the tool itself makes, from all
 * of its threads, but none of its loader.
 */
Result trace(const Device& device, const Words& words, const Decide& decide,
             const BeforeExec& before_exec = {});

std::string name_of(const SystemCall& call);

/** Whether it is one of the calls that the tests inject faults into. */
bool is_faulty(const SystemCall& call);

/** Whether the call changes something outside of the process. */
bool is_mutating(const SystemCall& call);

}  // namespace mounter_test

#endif
