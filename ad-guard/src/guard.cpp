#include "guard.h"

#include "device.h"
#include "guard_list.h"
#include "guard_log.h"

#include <algorithm>
#include <ctime>

namespace ad_guard {
namespace {

/** What an unconfirmed copy gets, and a confirmed one, before it is given up. */
constexpr int unconfirmed_failures = 3;
constexpr int confirmed_failures = 10;
/** The time within which a confirmed copy's failures count, in seconds. */
constexpr std::int64_t window = 24LL * 60 * 60;
/** How long a start must live to confirm the copy. The service manager's timer may be early. */
constexpr std::int64_t confirmation_time = 5LL * 60;
constexpr std::int64_t timer_slack = 2;
/** A copy that has the device shut down sooner than this counts as interrupted. */
constexpr std::int64_t short_run = 60;

std::string counted(int count, const char* what) {
    return std::to_string(count) + " " + what + " start" + (count == 1 ? "" : "s");
}

}  // namespace

Guard::Guard(ad_agent::DataDirectory directory)
    : directory_(std::move(directory)),
      record_(read_record(directory_)),
      boot_(boot_id()),
      monotonic_(monotonic_seconds()),
      time_(std::time(nullptr)) {}

void Guard::before() {
    if (!follow_copy()) {
        return;
    }
    judge_last_start();
    const auto reason = reason_to_give_up();
    if (reason && give_up(*reason)) {
        return;
    }
    ++record_.starts;
    record_.start = {StartState::running, boot_, monotonic_, 0};
    save("this start does not count");
}

void Guard::stop() {
    if (!is_this_start()) {
        return;
    }
    confirm_if_old_enough();
    record_.start.state = StartState::stopped;
    record_.start.duration = uptime();
    save("this stop counts as a failure");
}

void Guard::after(const std::optional<Ending>& ending) {
    if (!is_this_start()) {
        return;
    }
    confirm_if_old_enough();
    record_.start.state = StartState::none;
    // A copy that was installed or removed meanwhile is not to blame.
    if (ending && has_copy_of_this_start()) {
        add_failure(*ending);
    }
    save("this failure does not count");
}

void Guard::confirm() {
    if (!is_this_start()) {
        return;
    }
    if (uptime() + timer_slack < confirmation_time) {
        log_line("not confirmed: the daemon started only " + std::to_string(uptime()) +
                 " seconds ago");
        return;
    }
    if (record_.start.state == StartState::running) {
        confirm_if_old_enough();
        save("the copy is not confirmed");
    }
}

/** Begins anew for another copy or firmware. Returns whether there is a copy to watch. */
bool Guard::follow_copy() {
    std::string library;
    if (!hash_copy(library)) {
        return false;
    }
    const std::string firmware = library.empty() ? "" : recorded_firmware();
    if (library != record_.library || firmware != record_.firmware) {
        const bool is_same_copy = library == record_.library;
        Record anew;
        anew.library = library;
        anew.firmware = firmware;
        anew.installed = record_.installed;
        anew.installed_before = is_same_copy ? record_.installed_before : record_.installed;
        anew.latest_time = record_.latest_time;
        record_ = std::move(anew);
        if (library.empty()) {
            save("the next copy may be judged by this one's failures");
        }
    }
    if (library.empty()) {
        return false;
    }
    record_.installed = ad_agent::read_state(directory_).installed_sha256;
    return true;
}

/** Counts the last start if nothing recorded how it ended. */
void Guard::judge_last_start() {
    const Start& start = record_.start;
    // Without boot IDs it is not known, and counts half.
    const bool is_other_boot = boot_.empty() || start.boot != boot_;
    if (start.state == StartState::running && !is_other_boot) {
        add_failure({FailureKind::crashed, "ended unobserved"});
    } else if (start.state == StartState::running) {
        add_failure({FailureKind::interrupted, "ended by a power cut or a reboot"});
    } else if (start.state == StartState::stopped && is_other_boot && start.duration < short_run) {
        add_failure({FailureKind::interrupted, "ended by a shutdown within a minute"});
    }
    record_.start = {};
}

/** Whether the record is about the start that is being stopped, confirmed or judged now. */
bool Guard::is_this_start() const {
    return !record_.library.empty() && record_.start.boot == boot_ &&
           (record_.start.state == StartState::running || record_.start.state == StartState::good);
}

bool Guard::has_copy_of_this_start() const {
    std::string library;
    return hash_copy(library) && library == record_.library;
}

void Guard::confirm_if_old_enough() {
    if (record_.start.state != StartState::running || uptime() + timer_slack < confirmation_time ||
        !has_copy_of_this_start()) {
        return;
    }
    if (!record_.confirmed) {
        log_line(std::string(updatable_library) + " is confirmed: the daemon has run for " +
                 std::to_string(uptime()) + " seconds");
    }
    record_.start.state = StartState::good;
    record_.confirmed = true;
    record_.failed = 0;
    record_.interrupted = 0;
}

void Guard::add_failure(const Ending& ending) {
    constexpr int full = 2;
    ++(halves(ending.kind) == full ? record_.failed : record_.interrupted);
    record_.last_kind = ending.kind;
    record_.last_ending = ending.text;
    record_.recent.push_back({ending.kind, time_});
    log_line("start with " + std::string(updatable_library) + " " +
             (halves(ending.kind) == full ? "failed" : "interrupted") + ": " + ending.text + "; " +
             counted(record_.failed, "failed") + " and " +
             counted(record_.interrupted, "interrupted") + " since it was " +
             (record_.confirmed ? "confirmed last" : "installed"));
}

/** Returns why the copy is given up, or none. Interrupted starts count half. */
std::optional<std::string> Guard::reason_to_give_up() const {
    const int limit = 2 * (record_.confirmed ? confirmed_failures : unconfirmed_failures);
    const std::string last = ", the last one " + record_.last_ending;
    if (2 * record_.failed + record_.interrupted >= limit) {
        return counted(record_.failed, "failed") + " and " +
               counted(record_.interrupted, "interrupted") + " in a row" + last;
    }
    // A clock that was set back, or is not set yet, cannot tell what the last 24 hours are.
    if (!record_.confirmed || time_ < record_.latest_time) {
        return std::nullopt;
    }
    int sum = 0;
    int count = 0;
    for (const Failure& failure : record_.recent) {
        if (time_ - failure.time < window) {
            sum += halves(failure.kind);
            ++count;
        }
    }
    if (sum >= limit) {
        return counted(count, "failed or interrupted") + " in 24 hours" + last;
    }
    return std::nullopt;
}

/** Lists the image as bad and has the copy removed. Returns whether it is. */
bool Guard::give_up(const std::string& reason) {
    ad_agent::RefusedImage image =
        origin_of_copy(ad_agent::read_state(directory_), record_.installed_before);
    // First: power may fail in between, and then the copy is given up once more.
    std::string consequence = "its image is not known";
    if (!image.sha256.empty()) {
        image.time = time_;
        image.reason = reason_of(record_.last_kind);
        const auto listed = ad_agent::add_to_guard_list(directory_, image);
        consequence = listed ? "not installing its image " + image.sha256 + " again"
                             : "failed to list its image: " + listed.error().message;
    }
    const auto failure = remove_copy();
    if (failure) {
        log_line(std::string("failed to remove ") + updatable_library + " after " + reason + ": " +
                 *failure);
        return false;
    }
    log_line(std::string("gave up ") + updatable_library +
             (image.version.empty() ? "" : " of version " + image.version) + " after " + reason +
             "; " + consequence + "; falling back to the firmware's copy");
    Record anew;
    anew.installed = record_.installed;
    anew.latest_time = record_.latest_time;
    record_ = std::move(anew);
    save("the next copy may be judged by this one's failures");
    return true;
}

void Guard::save(const char* consequence) {
    record_.latest_time = std::max(record_.latest_time, time_);
    const auto written = write_record(directory_, record_);
    if (!written) {
        log_line(written.error().message + "; " + consequence);
    }
}

}  // namespace ad_guard
