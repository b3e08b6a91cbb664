/**
 * What the tool prints.
 */
#pragma once

#include "outcome.h"

namespace ad_mounter {

/**
 * Writes the failure `outcome` to standard error, as one line in one write(2):
 * "ad-mounter: OPTION: failed to STEP PATH: REASON". `option` is null before it is known.
 */
void report(const char* option, const Outcome& outcome);

/** Writes one line about wrong usage to standard error; `argument`, the culprit, may be null. */
void report_usage(const char* reason, const char* argument);

/** Writes `text` to standard output. False when that fails. */
bool print(const char* text);

}  // namespace ad_mounter
