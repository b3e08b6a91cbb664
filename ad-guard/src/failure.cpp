#include "failure.h"

#include <array>
#include <cstdlib>

namespace ad_guard {
namespace {

struct KindTraits {
    FailureKind kind;
    int halves;
    const char* name;
    const char* reason;
};

constexpr std::array<KindTraits, 4> kinds = {{
    {FailureKind::crashed, 2, "crashed", "its library crashed"},
    {FailureKind::exited, 2, "exited", "its library ended the daemon"},
    {FailureKind::hung, 2, "hung", "its library hung"},
    {FailureKind::interrupted, 1, "interrupted", "starts with its library were interrupted"},
}};

const KindTraits& traits_of(FailureKind kind) { return kinds.at(static_cast<std::size_t>(kind)); }

/** Whether the service manager or the dynamic loader failed to run the daemon. */
bool did_not_run(const std::string& exit_status) {
    constexpr int loader_failed = 127;
    constexpr int first_of_manager = 200;
    constexpr int last_of_manager = 245;
    const long status = std::strtol(exit_status.c_str(), nullptr, 10);
    return status == loader_failed || (status >= first_of_manager && status <= last_of_manager);
}

/** Whether a signal asks to stop. Sent before the daemon is ready, it comes without ExecStop=. */
bool asks_to_stop(const std::string& signal) {
    return signal == "TERM" || signal == "INT" || signal == "HUP";
}

}  // namespace

int halves(FailureKind kind) { return traits_of(kind).halves; }

const char* name_of(FailureKind kind) { return traits_of(kind).name; }

const char* reason_of(FailureKind kind) { return traits_of(kind).reason; }

std::optional<FailureKind> kind_of(const std::string& name) {
    for (const KindTraits& traits : kinds) {
        if (name == traits.name) {
            return traits.kind;
        }
    }
    return std::nullopt;
}

std::optional<Ending> read_ending(const std::string& service_result, const std::string& exit_code,
                                  const std::string& exit_status) {
    if (service_result == "watchdog") {
        return Ending{FailureKind::hung, "no sign of life for the watchdog"};
    }
    if (service_result == "timeout") {
        return Ending{FailureKind::hung, "not ready or not ended in time"};
    }
    if (exit_code == "exited") {
        return Ending{did_not_run(exit_status) ? FailureKind::interrupted : FailureKind::exited,
                      "exited with status " + exit_status};
    }
    if (!exit_code.empty()) {
        return Ending{asks_to_stop(exit_status) ? FailureKind::interrupted : FailureKind::crashed,
                      "killed by signal " + exit_status};
    }
    return std::nullopt;
}

}  // namespace ad_guard
