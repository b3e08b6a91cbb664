/**
 * Parses the command line against the tables of operations.h.
 */
#pragma once

#include "operations.h"

namespace ad_mounter {

/** What was asked for, or what is wrong with the command line. */
struct Command {
    const CommandSpec* spec = nullptr;     ///< null when the command line is wrong
    const Operation* operation = nullptr;  ///< the first one; null for --help and --version
    const char* error = nullptr;           ///< set when `spec` is null
    const char* error_argument = nullptr;  ///< the argument that `error` is about; may be null
};

/**
 * Parses an argument vector as main() receives it; `argc` may be 0. Arguments must equal those
 * of the tables: nothing is normalised, abbreviated or reordered. The result points into
 * `argv` and the tables.
 */
Command parse_command_line(int argc, const char* const* argv);

}  // namespace ad_mounter
