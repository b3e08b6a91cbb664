#include "status.h"

#include "image_download.h"
#include "part_file.h"

#include <algorithm>

namespace ad_ctl {
namespace {

std::optional<Download> read_download(const Snapshot& snapshot) {
    if (!snapshot.directory) {
        return std::nullopt;
    }
    const std::string name = ad_agent::image_name;
    const auto part = snapshot.directory->size_of(name + ad_agent::part_suffix);
    const auto complete = snapshot.directory->size_of(name);
    if (!part && !complete) {
        return std::nullopt;
    }
    Download download;
    download.is_complete = !part;
    download.received = part ? *part : *complete;
    if (snapshot.index && *snapshot.index) {
        download.version = (*snapshot.index)->version;
        download.size = (*snapshot.index)->size;
    }
    return download;
}

std::string describe_next_try(const Snapshot& snapshot) {
    switch (snapshot.service.state) {
        case ServiceState::stopped:
        case ServiceState::failed:
            return "when adagentd is started";
        case ServiceState::starting:
            return "once adagentd has started";
        default:
            break;
    }
    // It looks once, when the network is connected and the viewer has consented.
    return snapshot.state.check_time < snapshot.service.started
               ? "once the network is connected and the viewer has consented"
               : "at the next start of adagentd";
}

std::int64_t find_not_before(const Snapshot& snapshot) {
    if (!snapshot.index || !*snapshot.index) {
        return 0;
    }
    const ad_agent::RefusedImage* const wrong =
        snapshot.state.wrong.find((*snapshot.index)->sha256);
    return wrong && must_wait(*wrong, snapshot.time) ? retry_time(*wrong) : 0;
}

bool is_key_installed(const std::string& key_id) {
    const auto keys = load_image_keys();
    return keys && std::any_of(keys->begin(), keys->end(), [&](const base::PublicKey& key) {
               return ad_agent::key_id_text(key.id) == key_id;
           });
}

int count_recent_failures(const Snapshot& snapshot) {
    constexpr std::int64_t window = 24LL * 60 * 60;
    const auto& recent = snapshot.record.recent;
    return static_cast<int>(
        std::count_if(recent.begin(), recent.end(), [&](const ad_guard::Failure& failure) {
            return failure.time <= snapshot.time && snapshot.time - failure.time < window;
        }));
}

/** Whether the firmware copy is used although there is an image to install another from. */
bool is_fallback(const Status& status) {
    // The stopped daemon is judged by what its next start does.
    const Choice& choice = status.running.copy == Copy::none ? status.next : status.running;
    return status.snapshot.image && choice.copy == Copy::firmware &&
           choice.reason != Reason::pending;
}

void judge(Status& status) {
    for (const Check& check : status.readiness) {
        if (check.state == CheckState::failed) {
            status.problems.push_back(check.detail);
            status.health = Health::cannot_update;
        }
    }
    if (is_fallback(status)) {
        const Choice& choice = status.running.copy == Copy::none ? status.next : status.running;
        status.problems.push_back("on the firmware copy though an image is stored: " +
                                  choice.detail);
        status.health = std::max(status.health, Health::fallback);
    }
}

}  // namespace

Status read_status() {
    Status status;
    status.snapshot = read_snapshot();
    Snapshot& snapshot = status.snapshot;
    status.running = running_choice(snapshot);
    status.next = next_choice(snapshot);
    if (snapshot.image && !snapshot.image->trailer.rejection) {
        // What was installed was copied out of the mounted image.
        status.is_verified = snapshot.facts.recorded == snapshot.image->trailer.version;
        status.has_key = is_key_installed(snapshot.image->trailer.key_id);
    }
    status.download = read_download(snapshot);
    status.next_try = describe_next_try(snapshot);
    status.not_before = find_not_before(snapshot);
    status.readiness = check_readiness(snapshot);
    for (const Check& check : status.readiness) {
        if (check.state == CheckState::unseen) {
            snapshot.unseen.push_back("the " + check.name + ": " + check.detail);
        }
    }
    status.recent_failures = count_recent_failures(snapshot);
    judge(status);
    return status;
}

const char* name_of(Health health) {
    switch (health) {
        case Health::healthy:
            return "healthy";
        case Health::fallback:
            return "fallback";
        default:
            return "cannot_update";
    }
}

}  // namespace ad_ctl
