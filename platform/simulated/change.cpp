#include "change.h"

#include <algorithm>
#include <utility>

namespace simulated_platform {

namespace {

/** A change with its position in the newer file. */
using Placed = std::pair<int, Change>;

void add_settings(const State& before, const State& after, std::vector<Placed>& placed) {
    for (const Setting& now : after.settings) {
        const Setting* earlier = before.setting(now.key);
        if (earlier != nullptr && earlier->type == now.type && earlier->text == now.text) {
            continue;
        }
        placed.push_back({now.position, {Change::Kind::setting, now.key, now.type, now.integer}});
    }
    for (const Setting& earlier : before.settings) {
        if (after.setting(earlier.key) != nullptr) {
            continue;
        }
        placed.push_back({position_absent, {Change::Kind::setting, earlier.key, setting_none, 0}});
    }
}

void add_profiles(const State& before, const State& after, std::vector<Placed>& placed) {
    for (const Profile& now : after.profiles) {
        const Profile* earlier = before.profile(now.name);
        if (now.state == (earlier != nullptr ? earlier->state : 0)) {
            continue;
        }
        placed.push_back(
            {now.position, {Change::Kind::profile_state, now.name, setting_none, now.state}});
    }
    // A profile that is no longer registered counts as disconnected.
    for (const Profile& earlier : before.profiles) {
        if (after.profile(earlier.name) != nullptr || earlier.state == 0) {
            continue;
        }
        placed.push_back(
            {position_absent, {Change::Kind::profile_state, earlier.name, setting_none, 0}});
    }
}

}  // namespace

std::vector<Change> changes_between(const State& before, const State& after) {
    std::vector<Placed> placed;
    add_settings(before, after, placed);
    if (before.connection_type != after.connection_type) {
        placed.push_back(
            {after.connection_type_position,
             {Change::Kind::connection_type, {}, setting_none, after.connection_type}});
    }
    add_profiles(before, after, placed);
    std::stable_sort(placed.begin(), placed.end(), [](const Placed& left, const Placed& right) {
        return left.first < right.first;
    });
    std::vector<Change> changes;
    changes.reserve(placed.size());
    for (Placed& entry : placed) {
        changes.push_back(std::move(entry.second));
    }
    return changes;
}

}  // namespace simulated_platform
