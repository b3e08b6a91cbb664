#include "copies.h"

#include "version.h"

#include <array>
#include <cstdlib>

namespace ad_ctl {
namespace {

using ad_agent::no_version;
using ad_agent::RefusedImage;

/** A version as the daemon compares them when it chooses a copy: in single precision. */
float value_of(const std::string& version) {
    return static_cast<float>(std::strtod(version.c_str(), nullptr));
}

std::string quoted(const std::string& text) { return text.empty() ? "not known" : text; }

Choice by_firmware_change(const Snapshot& snapshot) {
    return {Copy::firmware, Reason::firmware_changed,
            "the firmware is " + quoted(snapshot.facts.device.firmware) + ", it was " +
                quoted(snapshot.recorded_firmware) + ": the next start removes the updatable copy"};
}

/** Returns the bad image that was found last, and whether the guard found it. */
std::optional<Choice> by_bad_image(const Snapshot& snapshot) {
    const auto& own = snapshot.state.bad.all();
    const auto& guarded = snapshot.guarded.all();
    const RefusedImage* const failed = own.empty() ? nullptr : &own.back();
    const RefusedImage* const crashed = guarded.empty() ? nullptr : &guarded.back();
    const bool is_crash = crashed && (!failed || crashed->time >= failed->time);
    const RefusedImage* const bad = is_crash ? crashed : failed;
    if (!bad) {
        return std::nullopt;
    }
    // The cache manifest has the version that was installed last, unless that was interrupted.
    const bool is_stored =
        snapshot.image && snapshot.image->bad && snapshot.image->bad->sha256 == bad->sha256;
    if (!is_stored && !bad->version.empty() && bad->version != snapshot.facts.recorded) {
        return std::nullopt;
    }
    const std::string version = bad->version.empty() ? snapshot.facts.recorded : bad->version;
    return Choice{Copy::firmware, is_crash ? Reason::crashed : Reason::did_not_load,
                  "version " + version + ": " + reason_text(*bad)};
}

/** Why there is no updatable copy. */
Choice without_copy(const Snapshot& snapshot) {
    const ad_agent::UpdateFacts& facts = snapshot.facts;
    const ad_agent::DeviceState& state = snapshot.state;
    const auto bad = by_bad_image(snapshot);
    if (bad) {
        return *bad;
    }
    const auto because = [](Reason reason, const std::string& detail) {
        return Choice{Copy::firmware, reason, detail};
    };
    if (facts.recorded == no_version && facts.floor == no_version && !snapshot.image) {
        return because(Reason::never_installed, "no update was ever installed");
    }
    const std::string builtin = "the firmware's version " + facts.builtin;
    if (!snapshot.image && value_of(facts.recorded) < value_of(facts.builtin)) {
        return because(Reason::firmware_newer,
                       builtin + " is newer than version " + facts.recorded + " was");
    }
    if (snapshot.image && snapshot.has_platform && state.offered_version == facts.stored &&
        state.offered_firmware != facts.device.firmware) {
        return because(Reason::firmware_changed, "version " + facts.stored +
                                                     " was installed for firmware " +
                                                     quoted(state.offered_firmware) + ", this is " +
                                                     quoted(facts.device.firmware));
    }
    if (was_interrupted(facts, state)) {
        return because(Reason::interrupted,
                       "version " + facts.stored + " was stored but not installed completely");
    }
    return because(Reason::not_recorded, "the updatable copy was removed; nothing recorded why");
}

constexpr std::array<const char*, 10> reason_names = {
    "installed",      "never_installed", "did_not_load", "crashed",     "firmware_changed",
    "firmware_newer", "interrupted",     "pending",      "not_running", "not_recorded"};
constexpr std::array<const char*, 3> copy_names = {"none", "updatable", "firmware"};

}  // namespace

Choice next_choice(const Snapshot& snapshot) {
    const ad_agent::UpdateFacts& facts = snapshot.facts;
    if (!facts.has_copy) {
        return without_copy(snapshot);
    }
    if (snapshot.has_platform && (snapshot.recorded_firmware.empty() ||
                                  snapshot.recorded_firmware != facts.device.firmware)) {
        return by_firmware_change(snapshot);
    }
    if (value_of(facts.recorded) < value_of(facts.builtin)) {
        return {Copy::firmware, Reason::firmware_newer,
                "the firmware's version " + facts.builtin + " is newer than the installed " +
                    facts.recorded + ": the next start removes the updatable copy"};
    }
    return {Copy::updatable, Reason::installed, "version " + facts.recorded + " is installed"};
}

Choice running_choice(const Snapshot& snapshot) {
    Choice next = next_choice(snapshot);
    if (snapshot.service.state != ServiceState::running) {
        return {Copy::none, Reason::not_running, "adagentd does not run"};
    }
    switch (snapshot.service.loaded) {
        case LoadedCopy::none:
            return {Copy::none, Reason::not_recorded, "adagentd has loaded no agent library"};
        case LoadedCopy::updatable:
            if (snapshot.service.is_replaced) {
                return {Copy::updatable, Reason::pending,
                        "its file was replaced or removed since adagentd started"};
            }
            return {Copy::updatable, Reason::installed,
                    "version " + snapshot.facts.recorded + " is installed"};
        case LoadedCopy::firmware:
            if (snapshot.facts.has_copy && next.copy == Copy::updatable) {
                return {
                    Copy::firmware, Reason::pending,
                    "version " + snapshot.facts.recorded + " was installed since adagentd started"};
            }
            return next;
        default:
            // A copy that it had not to load would be gone.
            return snapshot.facts.has_copy
                       ? Choice{Copy::updatable, Reason::installed,
                                "version " + snapshot.facts.recorded + " is installed"}
                       : next;
    }
}

const char* name_of(Copy copy) { return copy_names.at(static_cast<std::size_t>(copy)); }

const char* name_of(Reason reason) { return reason_names.at(static_cast<std::size_t>(reason)); }

}  // namespace ad_ctl
