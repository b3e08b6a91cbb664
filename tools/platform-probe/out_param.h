#pragma once

#include <type_traits>

namespace platform_probe {

/** An output parameter that starts with a value that no platform returns. */
template <typename Type>
class OutParam {
public:
    /** The address for the call to write to. */
    Type* get() { return &value_; }
    const Type& value() const { return value_; }
    bool is_unchanged() const { return value_ == initial(); }

private:
    static Type initial() {
        static char unique;
        if constexpr (std::is_pointer_v<Type>) {
            return reinterpret_cast<Type>(&unique);
        } else {
            return static_cast<Type>(-77);
        }
    }

    Type value_ = initial();
};

}  // namespace platform_probe
