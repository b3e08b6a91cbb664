#include "command_line.h"
#include "copy.h"
#include "create.h"
#include "messages.h"
#include "mount.h"
#include "privileges.h"
#include "process_start.h"
#include "remove.h"
#include "replace.h"
#include "run_lock.h"
#include "tree_copy.h"

#include <cstdio>

#include <unistd.h>

namespace ad_mounter {

namespace {

bool print_help() {
    char text[4096];
    int used = snprintf(text, sizeof text, "Usage: ad-mounter COMMAND [ARGUMENT...]\n\n");
    const auto add = [&text, &used](const char* one, const char* two, const char* three) {
        used += snprintf(text + used, sizeof text - static_cast<size_t>(used), "  %-14s%-20s %s\n",
                         one, two, three);
    };
    for (const VerbForm& form : verb_forms()) {
        add(form.option, form.synopsis, form.summary);
    }
    used += snprintf(text + used, sizeof text - static_cast<size_t>(used),
                     "\nNames and paths, and no others:\n");
    for (const Row& row : rows()) {
        for (const VerbForm& form : verb_forms()) {
            if (form.verb == row.verb) {
                used += snprintf(text + used, sizeof text - static_cast<size_t>(used),
                                 "  %s %s\n      %s\n", form.option, row.first,
                                 row.second != nullptr ? row.second : row.target);
            }
        }
    }
    return print(text);
}

Outcome perform(const Row& row, const Caller& caller) {
    switch (row.verb) {
        case Verb::create:
            return create(row, caller);
        case Verb::remove:
            return remove(row);
        case Verb::mount:
            return mount_image(row);
        case Verb::umount:
            return unmount_image(row);
        case Verb::replace_image:
            return replace_image(row, caller);
        case Verb::copy_library:
            return copy_library(row, caller);
        case Verb::copy_tree:
            return copy_tree(row, caller);
        default:
            return Outcome::refused(EX_SOFTWARE, "performing", row.first, "no such operation");
    }
}

// The rows that were asked for, under the lock; its end is this function's.
Outcome perform_locked(const Row& asked, const Caller& caller) {
    RunLock lock;
    Outcome outcome = lock.take();
    if (!outcome.ok()) {
        return outcome;
    }
    hold_signals();
    for (const Row& row : rows()) {
        if (outcome.ok() && asked_together(row, asked)) {
            outcome = perform(row, caller);
        }
    }
    return outcome;
}

int run(int argc, const char* const* argv) {
    Outcome outcome = prepare_process();
    if (!outcome.ok()) {
        report("start", outcome);
        return outcome.status();
    }
    const Command command = parse_command_line(argc, argv);
    if (command.form == nullptr) {
        report_usage(command.complaint, command.complaint_word);
        return EX_USAGE;
    }
    if (command.form->verb == Verb::help) {
        return print_help() ? EX_OK : EX_IOERR;
    }
    if (command.form->verb == Verb::version) {
        return print("ad-mounter " AD_MOUNTER_VERSION "\n") ? EX_OK : EX_IOERR;
    }
    Caller caller = {};
    outcome = become_root(caller);
    if (outcome.ok()) {
        outcome = reduce_rights(command.form->verb);
    }
    if (outcome.ok()) {
        outcome = perform_locked(*command.row, caller);
    }
    if (!outcome.ok()) {
        report(command.form->option, outcome);
    }
    return outcome.status();
}

}  // namespace

}  // namespace ad_mounter

int main(int argc, char** argv) {
    // Nothing is buffered and nothing is registered to run at the end.
    _exit(ad_mounter::run(argc, argv));
}
