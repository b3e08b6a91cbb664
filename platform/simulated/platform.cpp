#include "platform.h"

#include "paths.h"
#include "platform_log.h"
#include "system_information.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace simulated_platform {

Platform::Platform(const std::string& path, LogFile& log)
    : log_(log),
      store_(
          path, [this](const std::vector<Change>& changes) { loaded(changes); },
          [this](const std::string& line) { report(line); }),
      settings_(store_.state()),
      network_(store_.state()) {
    log_.force_result(store_.state().result(Call::dlog_print));
}

int Platform::get_value_string(int key, char** value) const {
    const State& state = store_.state();
    if (const int result = state.result(Call::system_info_get_value_string)) {
        return result;
    }
    if (value == nullptr || key != SYSTEM_INFO_KEY_FIRMWARE_VERSION) {
        return -EINVAL;
    }
    if (!state.firmware) {
        return -ENOENT;
    }
    char* copy = strdup(state.firmware->c_str());
    if (copy == nullptr) {
        return -ENOMEM;
    }
    *value = copy;
    return 0;
}

void Platform::loaded(const std::vector<Change>& changes) {
    log_.force_result(store_.state().result(Call::dlog_print));
    for (const Change& change : changes) {
        changed(change);
    }
}

void Platform::changed(const Change& change) {
    switch (change.kind) {
        case Change::Kind::setting:
            settings_.changed(change);
            break;
        case Change::Kind::connection_type:
            network_.type_changed(change);
            break;
        case Change::Kind::profile_state:
            network_.profile_changed(change);
            break;
    }
}

void Platform::report(const std::string& line) {
    std::fprintf(stderr, "simulated platform: %s\n", line.c_str());
    log_.print(PLATFORM_LOG_ERROR, "PLATFORM", "%s", line.c_str());
}

Platform& process_platform() {
    // Never destroyed: a program may release its clients at exit.
    static Platform& platform = *new Platform(state_path, process_log());
    return platform;
}

}  // namespace simulated_platform
