#pragma once

#include <unistd.h>

#include <utility>

namespace tool {

/// An open file descriptor, closed when its owner goes; -1 when there is none.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }

    int get() const { return m_fd; }
    /// Gives it up to the caller.
    int release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};

}  // namespace tool
