/**
 * A file descriptor that closes itself.
 */
#pragma once

#include <utility>

#include <unistd.h>

namespace simulated_platform {

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }

private:
    int number_;
};

}  // namespace simulated_platform
