#include "command_line.h"

#include <cstring>

namespace ad_mounter {

namespace {

bool same(const char* one, const char* other) {
    if (one == nullptr || other == nullptr) {
        return one == other;
    }
    return strcmp(one, other) == 0;
}

Command complaint(const char* what, const char* word) {
    Command command;
    command.complaint = what;
    command.complaint_word = word;
    return command;
}

const VerbForm* find_form(const char* option) {
    for (const VerbForm& form : verb_forms()) {
        if (same(form.option, option)) {
            return &form;
        }
    }
    return nullptr;
}

}  // namespace

bool asked_together(const Row& one, const Row& other) {
    return one.verb == other.verb && same(one.first, other.first) && same(one.second, other.second);
}

Command parse_command_line(int argc, const char* const* argv) {
    if (argc < 2 || argv == nullptr || argv[1] == nullptr) {
        return complaint("no command", nullptr);
    }
    const VerbForm* form = find_form(argv[1]);
    if (form == nullptr) {
        return complaint("unknown command", argv[1]);
    }
    const auto given = static_cast<size_t>(argc) - 2;
    if (given < form->arguments) {
        return complaint("argument missing", form->option);
    }
    if (given > form->arguments) {
        return complaint("too many arguments", form->option);
    }
    Command command;
    command.form = form;
    if (form->arguments == 0) {
        return command;
    }
    const Row asked = {form->verb, argv[2],         form->arguments > 1 ? argv[3] : nullptr,
                       nullptr,    Kind::directory, 0,
                       Owner::root};
    for (const Row& row : rows()) {
        if (asked_together(row, asked)) {
            command.row = &row;
            return command;
        }
    }
    return complaint(form->verb == Verb::create || form->verb == Verb::remove
                         ? "unknown name"
                         : "not a path that this command takes",
                     argv[2]);
}

}  // namespace ad_mounter
