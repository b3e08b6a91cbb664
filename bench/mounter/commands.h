// Runs commands and tells what they took.
#ifndef MOUNTER_BENCH_COMMANDS_H
#define MOUNTER_BENCH_COMMANDS_H

#include <functional>
#include <string>
#include <vector>

namespace mounter_bench {

using Command = std::vector<std::string>;

/** Runs a command (its program looked up in PATH), standard output dropped. Ends the program when
 * it fails. */
void run(const Command& command);

/** Microseconds that `work` takes. */
double timed(const std::function<void()>& work);

/** The highest resident memory of a command in kB (VmHWM at its exit). */
long peak_memory(const Command& command);

/** The middle one. */
double median(std::vector<double> values);

}  // namespace mounter_bench

#endif
