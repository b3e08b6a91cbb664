/**
 * Calls a platform library through its C functions, for those who write one.
 */
#include "check.h"
#include "console.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int exit_usage = 64;

void print_usage(FILE* stream) {
    fprintf(stream, R"(usage: platform-probe [show [KEY...]]
       platform-probe watch [KEY...]
       platform-probe check [--strict]
       platform-probe console

Calls the functions of a platform library, libad-platform.so.1, as the daemon
does. In the build tree it finds the simulated platform; LD_LIBRARY_PATH=DIRECTORY
puts another in its place.

  show     print the result of every query, and of those settings; the default
  watch    show, then print every change until interrupted
  check    check the promises of the headers, one line each, and write some
           thousand lines to the log; with --strict also check that null pointers
           and released and foreign handles are refused, which a platform need
           not survive
  console  execute commands from standard input, one a line

Each line of watch and console begins with the time, in microseconds of
CLOCK_MONOTONIC, and "=" for the result of a command or "*" for a callback.

Console commands:
%s
Exit status: 0; 1 if a promise is broken or a callback comes on the wrong thread;
64 for a wrong command line.
)",
            platform_probe::Console::help());
}

int status_of(const platform_probe::Console& console) {
    return console.is_every_callback_on_thread() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string command = arguments.empty() ? "show" : arguments[0];
    if (!arguments.empty()) {
        arguments.erase(arguments.begin());
    }
    if (command == "--help" || command == "-h") {
        print_usage(stdout);
        return 0;
    }
    if (command == "check" &&
        (arguments.empty() || arguments == std::vector<std::string>{"--strict"})) {
        return platform_probe::check_promises(!arguments.empty()) ? 0 : 1;
    }
    if (command == "show") {
        platform_probe::Console().show(arguments);
        return 0;
    }
    if (command == "watch") {
        platform_probe::Console console;
        console.watch(arguments);
        return status_of(console);
    }
    if (command == "console" && arguments.empty()) {
        platform_probe::Console console;
        console.read_commands();
        return status_of(console);
    }
    print_usage(stderr);
    return exit_usage;
}
