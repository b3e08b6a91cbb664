/**
 * An owned file descriptor.
 */
#pragma once

#include <utility>

#include <unistd.h>

namespace base {

/** Closes its descriptor, see close(2), when it goes out of scope. Move-only. */
class UniqueFd {
public:
    UniqueFd() = default;
    /** Takes ownership of `fd`; a negative one, as a failed open(2) returns, means none. */
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

    /** Gives up ownership; the caller closes what is returned. */
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

    /** Closes the current descriptor, if any, and takes ownership of `fd`. */
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace base
