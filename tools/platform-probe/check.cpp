#include "check.h"

#include "base/unique_fd.h"
#include "network_connection.h"
#include "out_param.h"
#include "platform_log.h"
#include "queries.h"
#include "settings_store.h"
#include "system_information.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace platform_probe {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr const char* log_tag = "platform-probe";
constexpr const char* missing_key = "platform-probe/missing";

void ignore_setting(keynode_t* /*node*/, void* /*user_data*/) {}
void ignore_type(connection_type_e /*type*/, void* /*user_data*/) {}
void ignore_profile(connection_profile_state_e /*state*/, void* /*user_data*/) {}

/** Prints and counts the promises. */
class Report {
public:
    void expect(bool is_kept, const std::string& promise) {
        const auto now = Clock::now();
        const auto took = std::chrono::duration_cast<Milliseconds>(now - last_);
        printf("%s  %s", is_kept ? "ok    " : "BROKEN", promise.c_str());
        // A call that takes long keeps the daemon from doing anything else.
        if (took > Milliseconds(100)) {
            printf(" (%lld ms)", static_cast<long long>(took.count()));
        }
        printf("\n");
        fflush(stdout);
        broken_ += is_kept ? 0 : 1;
        ++count_;
        last_ = Clock::now();
    }

    /** A call either succeeded or left its output unchanged. */
    template <typename Type>
    void expect_result(int result, const OutParam<Type>& output, const std::string& function) {
        expect(result == 0 ? !output.is_unchanged() : output.is_unchanged(),
               function + " succeeds, or leaves its output unchanged" +
                   (result == 0 ? "" : " (it returns " + std::to_string(result) + ")"));
    }

    /** A call failed and left its output unchanged. */
    template <typename Type>
    void expect_refused(int result, const OutParam<Type>& output, const std::string& call) {
        expect(result != 0 && output.is_unchanged(), call + " is refused");
    }

    bool finish() const {
        printf("%d promises, %d broken\n", count_, broken_);
        return broken_ == 0;
    }

private:
    Clock::time_point last_ = Clock::now();
    int count_ = 0;
    int broken_ = 0;
};

// --- platform_log.h ----------------------------------------------------------

int log_line(const char* message) {
    return __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_NORMAL, log_tag, "%s", message);
}

/**
 * Interrupts a process that logs with a signal whose handler logs, again and again.
 *
 * @return whether it ended, rather than waiting for a lock that it holds itself
 */
bool survives_signal_handlers() {
    static volatile std::sig_atomic_t interruptions = 0;
    // Before the child is there, which a signal without a handler would kill.
    const auto previous = signal(SIGUSR1, [](int /*number*/) {
        log_line("from a signal handler");
        interruptions = interruptions + 1;
    });
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        for (int lines = 0; lines < 200 || interruptions < 20; ++lines) {
            log_line("interrupted");
        }
        _exit(0);
    }
    int status = -1;
    // Ever more slowly: signals that come faster than the handler returns leave no time between.
    for (useconds_t pause = 100; child > 0 && waitpid(child, &status, WNOHANG) == 0;
         pause += pause < 10000 ? pause / 20 : 0) {
        kill(child, SIGUSR1);
        usleep(pause);
    }
    signal(SIGUSR1, previous);
    return status == 0;
}

void check_log(Report& report) {
    report.expect(log_line("a line") > 0, "__dlog_print returns the number of bytes written");
    errno = EDOM;
    log_line("another line");
    report.expect(errno == EDOM, "__dlog_print leaves errno unchanged");
    report.expect(survives_signal_handlers(), "__dlog_print may be called from a signal handler");
}

// --- system_information.h ----------------------------------------------------

void check_system_information(Report& report) {
    OutParam<char*> version;
    const int result =
        system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, version.get());
    report.expect_result(result, version, "system_info_get_value_string");
    if (result == 0) {
        free(version.value());
    }
    OutParam<char*> unknown;
    report.expect_refused(system_info_get_value_string(1, unknown.get()), unknown,
                          "an unknown key of system_info_get_value_string");
}

// --- settings_store.h --------------------------------------------------------

void check_settings(Report& report) {
    OutParam<int> value;
    report.expect_refused(vconf_get_int(missing_key, value.get()), value,
                          "a missing key of vconf_get_int");
    report.expect(vconf_notify_key_changed(missing_key, ignore_setting, nullptr) == 0,
                  "vconf_notify_key_changed accepts a missing key");
}

// --- network_connection.h ----------------------------------------------------

/** Passes a handle that is not a client to every function that takes one. */
void check_wrong_client(Report& report, connection_h handle, const std::string& name) {
    OutParam<connection_type_e> type;
    report.expect_refused(connection_get_type(handle, type.get()), type,
                          name + " of connection_get_type");
    for (const StateQuery& query : state_queries) {
        OutParam<int> state;
        report.expect_refused(query.get(handle, state.get()), state,
                              name + " of " + query.function);
    }
    report.expect(connection_set_type_changed_cb(handle, ignore_type, nullptr) != 0,
                  name + " of connection_set_type_changed_cb is refused");
    OutParam<connection_profile_iterator_h> iterator;
    report.expect_refused(connection_get_profile_iterator(
                              handle, CONNECTION_ITERATOR_TYPE_REGISTERED, iterator.get()),
                          iterator, name + " of connection_get_profile_iterator");
    report.expect(connection_destroy(handle) != 0, name + " of connection_destroy is refused");
}

void check_wrong_iterator(Report& report, connection_profile_iterator_h handle,
                          const std::string& name) {
    report.expect(!connection_profile_iterator_has_next(handle),
                  name + " of connection_profile_iterator_has_next has no next profile");
    OutParam<connection_profile_h> profile;
    report.expect_refused(connection_profile_iterator_next(handle, profile.get()), profile,
                          name + " of connection_profile_iterator_next");
}

void check_wrong_profile(Report& report, connection_profile_h handle, const std::string& name) {
    OutParam<connection_profile_type_e> type;
    report.expect_refused(connection_profile_get_type(handle, type.get()), type,
                          name + " of connection_profile_get_type");
    report.expect(connection_profile_set_state_changed_cb(handle, ignore_profile, nullptr) != 0,
                  name + " of connection_profile_set_state_changed_cb is refused");
    report.expect(connection_profile_unset_state_changed_cb(handle) != 0,
                  name + " of connection_profile_unset_state_changed_cb is refused");
}

void check_connection(Report& report, connection_h connection) {
    OutParam<connection_type_e> type;
    const int result = connection_get_type(connection, type.get());
    report.expect_result(result, type, "connection_get_type");
    for (const StateQuery& query : state_queries) {
        OutParam<int> state;
        const int failure = query.get(connection, state.get());
        report.expect_result(failure, state, query.function);
        if (result == 0 && type.value() == query.type) {
            report.expect(
                failure == 0 && state.value() == query.connected,
                std::string(query.function) + " agrees with the current connection's type");
        }
    }
    report.expect(connection_set_type_changed_cb(connection, ignore_type, nullptr) == 0,
                  "connection_set_type_changed_cb accepts a callback");
}

/** The profiles of one iteration, whose end is checked. */
std::vector<connection_profile_h> iterate(Report& report, connection_h connection) {
    std::vector<connection_profile_h> profiles;
    OutParam<connection_profile_iterator_h> iterator;
    const int result = connection_get_profile_iterator(
        connection, CONNECTION_ITERATOR_TYPE_REGISTERED, iterator.get());
    report.expect_result(result, iterator, "connection_get_profile_iterator");
    if (result != 0) {
        return profiles;
    }
    bool is_every_next_good = true;
    while (connection_profile_iterator_has_next(iterator.value()) && is_every_next_good) {
        OutParam<connection_profile_h> profile;
        is_every_next_good =
            connection_profile_iterator_next(iterator.value(), profile.get()) == 0 &&
            !profile.is_unchanged() && profile.value() != nullptr;
        profiles.push_back(profile.value());
    }
    report.expect(is_every_next_good,
                  "connection_profile_iterator_next returns each profile that is announced");
    OutParam<connection_profile_h> none;
    report.expect_refused(connection_profile_iterator_next(iterator.value(), none.get()), none,
                          "connection_profile_iterator_next at the end");
    report.expect(connection_destroy(iterator.value()) == 0,
                  "connection_destroy releases an iterator");
    return profiles;
}

void check_profiles(Report& report, connection_h connection) {
    const std::vector<connection_profile_h> profiles = iterate(report, connection);
    bool has_types = true;
    bool takes_callbacks = true;
    for (connection_profile_h profile : profiles) {
        OutParam<connection_profile_type_e> type;
        has_types = has_types && connection_profile_get_type(profile, type.get()) == 0;
        takes_callbacks =
            takes_callbacks &&
            connection_profile_set_state_changed_cb(profile, ignore_profile, nullptr) == 0 &&
            connection_profile_unset_state_changed_cb(profile) == 0;
    }
    report.expect(has_types, "connection_profile_get_type works once the iterator is released");
    report.expect(takes_callbacks, "a profile's callback can be set and unset");
    report.expect(iterate(report, connection) == profiles,
                  "another iteration returns the same handles in the same order");
}

void check_network(Report& report, bool is_strict) {
    OutParam<connection_h> created;
    const int result = connection_create(created.get());
    report.expect(result == 0 && !created.is_unchanged() && created.value() != nullptr,
                  "connection_create makes a client, even if its service is missing");
    if (result != 0) {
        return;
    }
    connection_h connection = created.value();
    check_connection(report, connection);
    check_profiles(report, connection);
    check_wrong_client(report, nullptr, "a null handle");
    check_wrong_iterator(report, nullptr, "a null handle");
    check_wrong_profile(report, nullptr, "a null handle");
    if (is_strict) {
        check_wrong_iterator(report, connection, "a client's handle");
        check_wrong_profile(report, connection, "a client's handle");
    }
    report.expect(connection_destroy(connection) == 0, "connection_destroy releases a client");
    if (is_strict) {
        OutParam<connection_h> next;
        report.expect(connection_create(next.get()) == 0 && next.value() != connection,
                      "connection_create does not reuse a released handle");
        check_wrong_client(report, connection, "a released handle");
        char foreign = '\0';
        check_wrong_client(report, &foreign, "a foreign handle");
        connection_destroy(next.value());
    }
}

/** Passes null pointers and an unknown filter, which the headers do not allow. */
void check_wrong_arguments(Report& report) {
    const auto expect_refused = [&report](int result, const std::string& call) {
        report.expect(result != 0, "a null " + call + " is refused");
    };
    expect_refused(system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, nullptr),
                   "value of system_info_get_value_string");
    int value = 0;
    expect_refused(vconf_get_int(nullptr, &value), "key of vconf_get_int");
    expect_refused(vconf_get_int(missing_key, nullptr), "value of vconf_get_int");
    expect_refused(vconf_notify_key_changed(nullptr, ignore_setting, nullptr),
                   "key of vconf_notify_key_changed");
    expect_refused(vconf_notify_key_changed(missing_key, nullptr, nullptr),
                   "callback of vconf_notify_key_changed");
    expect_refused(connection_create(nullptr), "result of connection_create");
    connection_h connection = nullptr;
    connection_create(&connection);
    expect_refused(connection_get_type(connection, nullptr), "result of connection_get_type");
    for (const StateQuery& query : state_queries) {
        expect_refused(query.get(connection, nullptr), std::string("result of ") + query.function);
    }
    expect_refused(connection_set_type_changed_cb(connection, nullptr, nullptr),
                   "callback of connection_set_type_changed_cb");
    expect_refused(
        connection_get_profile_iterator(connection, CONNECTION_ITERATOR_TYPE_REGISTERED, nullptr),
        "result of connection_get_profile_iterator");
    OutParam<connection_profile_iterator_h> iterator;
    report.expect_refused(
        connection_get_profile_iterator(connection, static_cast<connection_iterator_type_e>(1),
                                        iterator.get()),
        iterator, "an unknown filter of connection_get_profile_iterator");
    connection_destroy(connection);
}

// --- Threads -----------------------------------------------------------------

/** The signals that a thread blocks, from proc(5). */
unsigned long long blocked_signals(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) == 0) {
            return std::stoull(line.substr(strlen("SigBlk:")), nullptr, 16);
        }
    }
    return ~0ULL;  // The thread has ended.
}

/** Checks that the daemon's signal handlers run on its own thread. */
void check_threads(Report& report) {
    unsigned long long handled = 0;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        handled |= 1ULL << (signal - 1);
    }
    bool is_every_one_blocked = true;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() != std::to_string(getpid())) {
            is_every_one_blocked =
                is_every_one_blocked && (blocked_signals(task.path()) & handled) == handled;
        }
    }
    report.expect(is_every_one_blocked, "the platform's threads block SIGHUP, SIGINT and SIGTERM");
}

}  // namespace

bool check_promises(bool is_strict) {
    Report report;
    // First, since it forks: the child of a process with threads must not do much but exec(3).
    check_log(report);
    check_system_information(report);
    check_settings(report);
    check_network(report, is_strict);
    if (is_strict) {
        check_wrong_arguments(report);
    }
    check_threads(report);
    return report.finish();
}

}  // namespace platform_probe
