// SPDX-License-Identifier: MIT
// The NFLOG group: a socket on which the kernel delivers what the rules log.
#ifndef PMTUD_LINUX_LOG_GROUP_H
#define PMTUD_LINUX_LOG_GROUP_H

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "mnl_socket.h"

namespace pmtud_linux {

class LogGroup {
 public:
    /// Binds this process to the group, which delivers up to `snapLength` bytes of every packet,
    /// with a sequence number. The kernel collects messages in one datagram until it is full or a
    /// rule's queue threshold is reached. 0 or a negative errno value: -EPERM without
    /// CAP_NET_ADMIN, -EBUSY if another process has the group.
    int open(uint16_t group, uint32_t snapLength);

    void close() { m_socket.reset(); }

    /// Readable when there are messages.
    int fd() const { return mnl_socket_get_fd(m_socket.get()); }

    /// One datagram of complete netlink messages. Not usable if the kernel did not send it, or if
    /// it is longer than any that the kernel sends.
    struct Datagram {
        std::span<const char> bytes;
        bool usable = false;
    };

    /// Receives up to `datagrams.size()` datagrams that have arrived, without waiting. Returns
    /// their number or a negative errno value: -EAGAIN if there are none, -ENOBUFS if messages were
    /// lost. The bytes are valid until the next call.
    static constexpr size_t kAtOnce = 16;
    int receive(std::array<Datagram, kAtOnce>& datagrams);

 private:
    // Larger than the kernel's buffer, even after its allocation is rounded up.
    static constexpr size_t kDatagramSize = 8192;
    struct alignas(nlmsghdr) Buffer {
        std::array<char, kDatagramSize> bytes;
    };

    MnlSocket m_socket;
    std::array<Buffer, kAtOnce> m_buffers;
};

}  // namespace pmtud_linux

#endif
