/**
 * The platform that the tests bring along, as the daemon does.
 */
#ifndef TESTS_AGENT_PLATFORM_H
#define TESTS_AGENT_PLATFORM_H

#include <string>

/** What the platform gives as the firmware's version; empty for a failure. */
extern std::string platform_firmware;

#endif
