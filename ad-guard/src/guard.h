/**
 * Watches over the updatable copy of the agent library: counts the daemon's starts with it and how
 * they end, and has a copy removed that keeps the daemon from running.
 */
#pragma once

#include "data_directory.h"
#include "record.h"

#include <optional>
#include <string>

#include <sys/types.h>

namespace ad_guard {

/** One run of the guard. None of its steps fails: what goes wrong is logged and left. */
class Guard {
public:
    /** @param directory  the agent library's data directory */
    explicit Guard(ad_agent::DataDirectory directory);

    /** Before a start: judges the last one, gives the copy up or counts the start. */
    void before();

    /** When the service manager stops the daemon: what follows is not the copy's failure. */
    void stop();

    /** After the daemon has ended. @param ending  how, none if it was not started */
    void after(const std::optional<Ending>& ending);

    /** After five minutes: confirms the copy if the daemon has run since. */
    void confirm();

private:
    bool follow_copy();
    void judge_last_start();
    bool is_this_start() const;
    bool has_copy_of_this_start() const;
    std::int64_t uptime() const { return monotonic_ - record_.start.monotonic; }
    void confirm_if_old_enough();
    void add_failure(const Ending& ending);
    std::optional<std::string> reason_to_give_up() const;
    bool give_up(const std::string& reason);
    void save(const char* consequence);

    ad_agent::DataDirectory directory_;
    Record record_;
    std::string boot_;
    std::int64_t monotonic_;
    std::int64_t time_;
};

}  // namespace ad_guard
