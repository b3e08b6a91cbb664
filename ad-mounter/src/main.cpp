#include "command_line.h"
#include "messages.h"
#include "privileges.h"
#include "process_start.h"
#include "run_lock.h"
#include "verbs.h"

#include <cstdio>

#include <unistd.h>

namespace ad_mounter {

namespace {

bool print_help() {
    bool printed = print("Usage: ad-mounter COMMAND [ARGUMENT...]\n\n");
    char text[256];
    for (const CommandSpec& spec : command_specs) {
        snprintf(text, sizeof text, "  %-13s %-19s %s\n", spec.option, spec.synopsis, spec.summary);
        printed = printed && print(text);
    }
    printed = printed && print("\nAccepted names and paths:\n");
    for (const Operation& operation : operations) {
        for (const CommandSpec& spec : command_specs) {
            if (spec.verb == operation.verb) {
                snprintf(text, sizeof text, "  %s %s\n      %s\n", spec.option, operation.first,
                         operation.second != nullptr ? operation.second : operation.target);
                printed = printed && print(text);
            }
        }
    }
    return printed;
}

Outcome perform(const Operation& operation, const Caller& caller) {
    switch (operation.verb) {
        case Verb::create:
            return create_target(operation, caller);
        case Verb::remove:
            return remove_target(operation);
        case Verb::mount:
            return mount_image(operation);
        case Verb::umount:
            return unmount_image(operation);
        case Verb::replace_image:
            return replace_image(operation, caller);
        case Verb::copy_library:
            return copy_library(operation, caller);
        case Verb::copy_tree:
            return copy_tree(operation, caller);
        default:
            return Outcome::refused(EX_SOFTWARE, "perform", operation.first, "not an operation");
    }
}

Outcome perform_request(const Command& command) {
    Caller caller = {};
    TRY(become_root(caller));
    TRY(drop_privileges(*command.spec, *command.operation));
    RunLock lock;
    TRY(lock.acquire());
    block_signals();
    for (const Operation& operation : operations) {
        if (same_request(operation, *command.operation)) {
            TRY(perform(operation, caller));
        }
    }
    return {};
}

// Not inlined into main(), where its stack would be in use before the limit is raised.
[[gnu::noinline]] int run(int argc, const char* const* argv, Outcome outcome) {
    if (outcome.ok()) {
        outcome = prepare_process();
    }
    if (!outcome.ok()) {
        report(nullptr, outcome);
        return outcome.status();
    }
    const Command command = parse_command_line(argc, argv);
    if (command.spec == nullptr) {
        report_usage(command.error, command.error_argument);
        return EX_USAGE;
    }
    if (command.spec->verb == Verb::help) {
        return print_help() ? EX_OK : EX_IOERR;
    }
    if (command.spec->verb == Verb::version) {
        return print("ad-mounter " AD_MOUNTER_VERSION "\n") ? EX_OK : EX_IOERR;
    }
    outcome = perform_request(command);
    if (!outcome.ok()) {
        report(command.spec->option, outcome);
    }
    return outcome.status();
}

}  // namespace

}  // namespace ad_mounter

int main(int argc, char** argv) {
    const ad_mounter::Outcome limits_reset = ad_mounter::reset_resource_limits();
    // There is nothing to flush and no handler to run.
    _exit(ad_mounter::run(argc, argv, limits_reset));
}
