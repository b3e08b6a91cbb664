/**
 * A file descriptor, closed at the end of its scope.
 */
#ifndef AD_AGENT_UNIQUE_FD_H
#define AD_AGENT_UNIQUE_FD_H

#include <utility>

#include <unistd.h>

namespace ad_agent {

class UniqueFd {
public:
    UniqueFd() = default;
    /** Takes over a descriptor; a negative one stands for none. */
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    explicit operator bool() const { return m_fd >= 0; }
    int get() const { return m_fd; }
    void reset() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

}  // namespace ad_agent

#endif
