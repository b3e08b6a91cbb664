#include "command_line.h"

#include <cstring>

namespace ad_mounter {

namespace {

Command usage_error(const char* error, const char* argument) {
    Command command;
    command.error = error;
    command.error_argument = argument;
    return command;
}

const CommandSpec* find_spec(const char* option) {
    for (const CommandSpec& spec : command_specs) {
        if (strcmp(spec.option, option) == 0) {
            return &spec;
        }
    }
    return nullptr;
}

}  // namespace

Command parse_command_line(int argc, const char* const* argv) {
    if (argc < 2 || argv == nullptr || argv[1] == nullptr) {
        return usage_error("missing command", nullptr);
    }
    Command command;
    command.spec = find_spec(argv[1]);
    if (command.spec == nullptr) {
        return usage_error("unknown command", argv[1]);
    }
    const size_t wanted = command.spec->arguments;
    const auto given = static_cast<size_t>(argc) - 2;
    if (given != wanted) {
        return usage_error(given < wanted ? "missing argument" : "too many arguments", argv[1]);
    }
    if (wanted == 0) {
        return command;
    }
    Operation request = {};
    request.verb = command.spec->verb;
    request.first = argv[2];
    request.second = wanted > 1 ? argv[3] : nullptr;
    for (const Operation& operation : operations) {
        if (same_request(operation, request)) {
            command.operation = &operation;
            return command;
        }
    }
    return usage_error(wanted == 1 && request.verb != Verb::umount
                           ? "unknown name"
                           : "path not accepted by this command",
                       argv[2]);
}

}  // namespace ad_mounter
