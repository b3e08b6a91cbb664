#include "linux_services.h"

#include <cstdio>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace test_support {

const char* const NO_NAMESPACES = "needs root and the right to make namespaces";

bool in_linux_services() { return access("/run/linux-services", F_OK) == 0; }

void enter_linux_services(int argc, char** argv) {
    const char* const attempt = "unshare --net --uts --mount --pid --fork true";
    if (in_linux_services() || geteuid() != 0 || shell(attempt).status != 0) return;
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--gtest_list_tests") return;
    }
    std::vector<const char*> command = {LINUX_SERVICES, "enter", "--"};
    command.insert(command.end(), argv, argv + argc);
    command.push_back(nullptr);
    execv(LINUX_SERVICES, const_cast<char* const*>(command.data()));
    perror(LINUX_SERVICES);
    _exit(1);
}

Outcome services(const std::string& arguments) {
    return shell(std::string(LINUX_SERVICES) + " " + arguments);
}

}  // namespace test_support
