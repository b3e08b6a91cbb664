#pragma once

#include <cstring>

namespace platform_probe {

/** An output parameter that starts with a value that no platform returns. */
template <typename Type>
class OutParam {
public:
    OutParam() { memset(&value_, initial_byte, sizeof value_); }

    /** The address for the call to write to. */
    Type* get() { return &value_; }
    /** What a call that succeeded has written. */
    const Type& value() const { return value_; }

    bool is_unchanged() const {
        // By bytes: the initial value may be none of the type's.
        unsigned char initial[sizeof value_];
        memset(initial, initial_byte, sizeof initial);
        return memcmp(&value_, initial, sizeof initial) == 0;
    }

private:
    static constexpr int initial_byte = 0xa5;

    Type value_;
};

}  // namespace platform_probe
