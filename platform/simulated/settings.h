/**
 * The settings store.
 */
#pragma once

#include "change.h"
#include "settings_store.h"

#include <string>
#include <vector>

/** The key and value that a change callback receives. The name is the interface's. */
struct settings_keynode {  // NOLINT(readability-identifier-naming)
    std::string name;
    int type;
    int value;
};

namespace simulated_platform {

/** Reads a state's keys and keeps the watches on them. */
class Settings {
public:
    explicit Settings(const State& state) : state_(state) {}

    int watch(const char* key, vconf_callback_fn callback, void* user_data);
    int get_int(const char* key, int* value) const;

    /** Runs the callbacks that watch the changed key, in the order of registration. */
    void changed(const Change& change);

private:
    struct Watch {
        std::string key;
        vconf_callback_fn callback;
        void* user_data;
    };

    const State& state_;
    std::vector<Watch> watches_;
};

}  // namespace simulated_platform
