// Reads the command line against the table.
#ifndef AD_MOUNTER_COMMAND_LINE_H
#define AD_MOUNTER_COMMAND_LINE_H

#include "table.h"

namespace ad_mounter {

/** What was asked for, or why it was not understood. */
struct Command {
    const VerbForm* form = nullptr;   ///< the verb; null when not understood
    const Row* row = nullptr;         ///< the first row asked for; null for --help and --version
    const char* complaint = nullptr;  ///< what is wrong, when `form` is null
    const char* complaint_word = nullptr;  ///< the word it is about; may be null
};

/**
 * Understands an argument vector as main() gets it; `argc` may be 0. Only whole
 * words of the table count: nothing is normalised, shortened or reordered.
 */
Command parse_command_line(int argc, const char* const* argv);

/** Whether two rows are asked for by the same words. */
bool asked_together(const Row& one, const Row& other);

}  // namespace ad_mounter

#endif
