// A descriptor that closes itself.
#ifndef AD_MOUNTER_UNIQUE_FD_H
#define AD_MOUNTER_UNIQUE_FD_H

#include <unistd.h>

namespace ad_mounter {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    /** Gives the descriptor away; the caller closes it. */
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    /** Closes what is held and holds `fd` instead. */
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace ad_mounter

#endif
