/**
 * The settings store's work.
 */
#pragma once

#include "change.h"
#include "settings_store.h"

#include <string>
#include <vector>

/** What a change callback is given. */
struct settings_keynode {
    std::string name;
    int type;
    int value;
};

namespace simulated_platform {

/** Reads keys of a state and keeps the watches on them. */
class Settings {
public:
    explicit Settings(const State& state) : state_(state) {}

    int watch(const char* key, vconf_callback_fn callback, void* user_data);
    int get_int(const char* key, int* value) const;

    /** Calls back whoever watches the changed key, in the order of registration. */
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
