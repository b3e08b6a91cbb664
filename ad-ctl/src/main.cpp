// What the device's advertising agent does, for people and for programs.
#include "log.h"
#include "next_pass.h"
#include "status.h"
#include "timeline.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <sysexits.h>

namespace {

using Arguments = std::vector<std::string>;

constexpr char usage[] =
    "Usage: adagentctl status [--json]\n"
    "       adagentctl check\n"
    "       adagentctl log [--since TIME] [--lines COUNT] [--follow]\n"
    "       adagentctl --help | --version\n"
    "\n"
    "  status  what runs, why, and whether updates work: 0 if healthy, 1 on the\n"
    "          firmware copy though an image is stored, 2 if it cannot update\n"
    "  check   what the next pass would do; changes nothing\n"
    "  log     what daemon, agent library, ad-mounter and guard logged\n";

int misused(const std::string& reason) {
    std::fprintf(stderr, "adagentctl: %s; see --help\n", reason.c_str());
    return EX_USAGE;
}

/** Writes all of it, or reports that it could not. */
int print(const std::string& text, int status) {
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        std::perror("adagentctl: failed to write");
        return EX_IOERR;
    }
    return status;
}

int run_status(const Arguments& options) {
    const bool is_json = options == Arguments{"--json"};
    if (!options.empty() && !is_json) {
        return misused("status: unknown argument " + options.back());
    }
    const ad_ctl::Status status = ad_ctl::read_status();
    return print(is_json ? to_json(status) : to_screen(status), static_cast<int>(status.health));
}

int run_check(const Arguments& options) {
    if (!options.empty()) {
        return misused("check: unknown argument " + options.front());
    }
    const ad_ctl::NextPass plan = ad_ctl::plan_next_pass();
    std::string text;
    for (const std::string& step : plan.steps) {
        // Some of it comes from a server.
        text += ad_agent::printable(step, ad_agent::max_log_line) + "\n";
    }
    constexpr int cannot_update = 2;
    return print(text, plan.can_update ? 0 : cannot_update);
}

int run_log(const Arguments& options) {
    Arguments passed;
    for (std::size_t i = 0; i < options.size(); ++i) {
        if (options[i] == "--follow") {
            passed.push_back(options[i]);
        } else if ((options[i] == "--since" || options[i] == "--lines") && i + 1 < options.size()) {
            passed.push_back(options[i] + "=" + options[i + 1]);
            ++i;
        } else {
            return misused("log: unknown or incomplete argument " + options[i]);
        }
    }
    return ad_ctl::print_timeline(passed);
}

int run(const Arguments& arguments) {
    const std::string command = arguments.empty() ? "" : arguments.front();
    const Arguments options(arguments.begin() + (arguments.empty() ? 0 : 1), arguments.end());
    if (command == "status") {
        return run_status(options);
    }
    if (command == "check") {
        return run_check(options);
    }
    if (command == "log") {
        return run_log(options);
    }
    if (arguments == Arguments{"--help"}) {
        return print(usage, 0);
    }
    if (arguments == Arguments{"--version"}) {
        return print("adagentctl " ADAGENTCTL_VERSION "\n", 0);
    }
    return misused(command.empty() ? "no command" : "unknown command " + command);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(Arguments(argv + 1, argv + argc));
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "adagentctl: %s\n", exception.what());
        return EX_SOFTWARE;
    }
}
