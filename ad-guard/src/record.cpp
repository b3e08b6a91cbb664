#include "record.h"

#include "base/glib_owned.h"
#include "key_file.h"
#include "log.h"
#include "part_file.h"
#include "utc_time.h"

#include <algorithm>
#include <array>

namespace ad_guard {
namespace {

constexpr char file_name[] = "guard.ini";
constexpr std::uint64_t max_size = 64ULL * 1024;
constexpr std::size_t max_text = 256;
constexpr std::size_t max_recent = 32;
constexpr char copy_group[] = "copy";
constexpr char start_group[] = "start";
constexpr char failures_group[] = "failures";
constexpr char clock_group[] = "clock";
constexpr std::array<const char*, 4> state_names = {"none", "running", "good", "stopped"};

using ad_agent::read_text;

int read_count(GKeyFile* file, const char* group, const char* key) {
    return std::max(g_key_file_get_integer(file, group, key, nullptr), 0);
}

std::int64_t read_time(GKeyFile* file, const char* group, const char* key) {
    return ad_agent::parse_utc(read_text(file, group, key)).value_or(0);
}

Start read_start(GKeyFile* file) {
    Start start;
    const auto* const state =
        std::find(state_names.begin(), state_names.end(), read_text(file, start_group, "state"));
    if (state != state_names.end()) {
        start.state = static_cast<StartState>(state - state_names.begin());
    }
    start.boot = read_text(file, start_group, "boot");
    start.monotonic = g_key_file_get_int64(file, start_group, "monotonic", nullptr);
    start.duration = g_key_file_get_int64(file, start_group, "duration", nullptr);
    return start;
}

/** "2026-11-21T10:00:00Z crashed;" for each. */
std::vector<Failure> read_recent(GKeyFile* file) {
    constexpr std::size_t time_length = 20;
    std::vector<Failure> recent;
    const base::Owned<char*> list(
        g_key_file_get_string_list(file, failures_group, "recent", nullptr, nullptr));
    for (char** entry = list.get(); entry && *entry; ++entry) {
        const std::string text = *entry;
        const auto time = ad_agent::parse_utc(text.substr(0, time_length));
        const auto kind = kind_of(text.substr(std::min(time_length + 1, text.size())));
        if (time && kind) {
            recent.push_back({*kind, *time});
        }
    }
    return recent;
}

void write_recent(GKeyFile* file, const std::vector<Failure>& recent) {
    const std::size_t first = recent.size() - std::min(recent.size(), max_recent);
    std::string list;
    for (std::size_t i = first; i < recent.size(); ++i) {
        list += ad_agent::format_utc(recent[i].time) + " " + name_of(recent[i].kind) + ";";
    }
    g_key_file_set_value(file, failures_group, "recent", list.c_str());
}

}  // namespace

Record read_record(const ad_agent::DataDirectory& directory) {
    Record record;
    const base::Owned<GKeyFile> file = ad_agent::load_key_file(directory, file_name, max_size);
    if (!file) {
        return record;
    }
    record.library = read_text(file.get(), copy_group, "sha256");
    record.firmware = read_text(file.get(), copy_group, "firmware");
    record.installed = read_text(file.get(), copy_group, "installed");
    record.installed_before = read_text(file.get(), copy_group, "installed_before");
    record.starts = read_count(file.get(), copy_group, "starts");
    record.confirmed =
        g_key_file_get_boolean(file.get(), copy_group, "confirmed", nullptr) != FALSE;
    record.failed = read_count(file.get(), failures_group, "failed");
    record.interrupted = read_count(file.get(), failures_group, "interrupted");
    record.last_kind =
        kind_of(read_text(file.get(), failures_group, "last")).value_or(FailureKind::crashed);
    record.last_ending = read_text(file.get(), failures_group, "ending");
    record.recent = read_recent(file.get());
    record.start = read_start(file.get());
    record.latest_time = read_time(file.get(), clock_group, "latest");
    return record;
}

ad_agent::Result<> write_record(const ad_agent::DataDirectory& directory, const Record& record) {
    const base::Owned<GKeyFile> file(g_key_file_new());
    const auto set = [&](const char* group, const char* key, const std::string& value) {
        g_key_file_set_string(file.get(), group, key, ad_agent::printable(value, max_text).c_str());
    };
    const auto set_number = [&](const char* group, const char* key, std::int64_t value) {
        g_key_file_set_int64(file.get(), group, key, value);
    };
    set(copy_group, "sha256", record.library);
    set(copy_group, "firmware", record.firmware);
    set(copy_group, "installed", record.installed);
    set(copy_group, "installed_before", record.installed_before);
    set_number(copy_group, "starts", record.starts);
    g_key_file_set_boolean(file.get(), copy_group, "confirmed",
                           static_cast<gboolean>(record.confirmed));
    set(start_group, "state", state_names.at(static_cast<std::size_t>(record.start.state)));
    set(start_group, "boot", record.start.boot);
    set_number(start_group, "monotonic", record.start.monotonic);
    set_number(start_group, "duration", record.start.duration);
    set_number(failures_group, "failed", record.failed);
    set_number(failures_group, "interrupted", record.interrupted);
    set(failures_group, "last", name_of(record.last_kind));
    set(failures_group, "ending", record.last_ending);
    write_recent(file.get(), record.recent);
    set(clock_group, "latest", ad_agent::format_utc(record.latest_time));
    const base::Owned<char> text(g_key_file_to_data(file.get(), nullptr, nullptr));
    return ad_agent::replace_file(directory, file_name, text.get());
}

}  // namespace ad_guard
