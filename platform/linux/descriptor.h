// SPDX-License-Identifier: MIT
// Owns a file descriptor and closes it.
#ifndef PMTUD_LINUX_DESCRIPTOR_H
#define PMTUD_LINUX_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace pmtud_linux {

class Descriptor {
 public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0) close(old);
    }

 private:
    int m_fd = -1;
};

}  // namespace pmtud_linux

#endif
