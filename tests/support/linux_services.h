/** Real services in private namespaces (device/linux-services), for tests and benchmarks. */
#ifndef TEST_SUPPORT_LINUX_SERVICES_H
#define TEST_SUPPORT_LINUX_SERVICES_H

#include "line_process.h"

#include <string>

namespace test_support {

/**
 * Has the program start anew in namespaces of its own with every service
 * running; returns there, and where namespaces cannot be made. To be called
 * first in main.
 */
void enter_linux_services(int argc, char** argv);

/** Whether this process is in such namespaces. */
bool in_linux_services();

/** Why a test has to be skipped where it is not. */
extern const char* const NO_NAMESPACES;

/** device/linux-services with these arguments, such as "kill network". */
Outcome services(const std::string& arguments);

}  // namespace test_support

#endif
