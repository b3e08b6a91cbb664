#include "next_pass.h"

#include "image_download.h"
#include "part_file.h"
#include "status.h"
#include "trusted_index.h"
#include "version.h"

namespace ad_ctl {
namespace {

/** Applies what the daemon removes before it makes its pass. */
void apply_next_start(Snapshot& snapshot, const Choice& next, NextPass& plan) {
    if (next.copy != Copy::firmware || !snapshot.facts.has_copy) {
        return;
    }
    plan.steps.push_back("next start: " + next.detail);
    snapshot.facts.has_copy = false;
    if (next.reason == Reason::firmware_newer && snapshot.image) {
        plan.steps.push_back("next start: removes the stored image of version " +
                             snapshot.facts.stored);
        snapshot.facts.stored = ad_agent::no_version;
    }
}

void plan_download(const Snapshot& snapshot, const ad_agent::UpdateIndex& index, NextPass& plan) {
    const std::string name = ad_agent::image_name;
    const std::string image =
        "version " + index.version + " of " + std::to_string(index.size) + " bytes";
    if (snapshot.directory && ad_agent::is_downloaded(*snapshot.directory, index)) {
        plan.steps.push_back("would install " + image + ", which is downloaded already");
        return;
    }
    const auto part = snapshot.directory ? snapshot.directory->size_of(name + ad_agent::part_suffix)
                                         : std::nullopt;
    plan.steps.push_back("would download " + image +
                         (part ? ", resuming at " + std::to_string(*part) : "") +
                         ", and install it");
}

/** Returns false if nothing can be said about the server's image. */
bool plan_update(const Snapshot& snapshot, NextPass& plan) {
    if (!snapshot.settings) {
        plan.steps.push_back(snapshot.settings.error().message);
        return false;
    }
    if (!snapshot.product) {
        plan.steps.push_back(snapshot.product.error().message);
        return false;
    }
    const auto index =
        ad_agent::probe_index(*snapshot.settings, snapshot.paths.index_keys, snapshot.state);
    if (!index) {
        plan.steps.push_back(index.error().message);
        return false;
    }
    const auto reason = rejection_reason(snapshot.facts, snapshot.state,
                                         find_bad(snapshot, index->sha256), *index, snapshot.time);
    if (reason) {
        plan.steps.push_back("nothing to install: " + *reason);
    } else {
        plan_download(snapshot, *index, plan);
    }
    return true;
}

}  // namespace

NextPass plan_next_pass() {
    NextPass plan;
    Status status = read_status();
    Snapshot& snapshot = status.snapshot;
    plan.steps.push_back("next pass: " + status.next_try);
    apply_next_start(snapshot, status.next, plan);
    for (const Check& check : status.readiness) {
        // The others are met again below.
        const std::string& name = check.name;
        if (check.state == CheckState::failed && name != "configuration" && name != "product" &&
            name != "index-keys") {
            plan.steps.push_back(name + ": " + check.detail);
            plan.can_update = false;
        }
    }
    if (repairs_first(snapshot.facts, snapshot.state) && snapshot.image && !snapshot.image->bad) {
        plan.steps.push_back("would install the stored image of version " + snapshot.facts.stored +
                             " again, whose installation was interrupted");
        return plan;
    }
    plan.can_update = plan_update(snapshot, plan) && plan.can_update;
    return plan;
}

}  // namespace ad_ctl
