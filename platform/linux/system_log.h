// SPDX-License-Identifier: MIT
// Writes lines to the system log, as datagrams to /dev/log, without blocking.
//
// A datagram has the form of RFC 3164 section 4.1 without the host name, as local programs send it:
// "<31>Mmm dd hh:mm:ss pmtud[PID]: MODULE TEXT". Lines are truncated to 1,024 bytes, that RFC's
// limit.
//
// A line that the log does not accept at once is dropped and counted. The count is logged before
// the next line that the log accepts.
#ifndef PMTUD_LINUX_SYSTEM_LOG_H
#define PMTUD_LINUX_SYSTEM_LOG_H

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <span>

#include "priority.h"

namespace pmtud_linux {

/// The daemon's module number, under which the platform logs too.
constexpr uint32_t kOwnModule = 89;

class SystemLog {
 public:
    /// The process's only log. Never destroyed: the receive thread writes lines until the process
    /// ends, even while static objects are being destroyed.
    static SystemLog& instance();

    /// 0, or a negative errno value if the line was lost.
    int write(Priority priority, uint32_t module, const char* text);

    /// Counts one line as lost, because it could not be formatted.
    void lose();

    /// Keeps a debug line for the next flush, which is automatic when kLinesKept are kept. 0, or
    /// -EINVAL if it cannot be formatted.
    static constexpr size_t kLinesKept = 16;
    int keep(uint32_t module, const char* text);

    /// Writes the kept lines in one system call.
    void flush();

 private:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kMaximumLine = 1024;

    struct Line {
        std::array<char, kMaximumLine + 1> text;
        size_t size = 0;
    };

    bool format(Line& line, Priority priority, uint32_t module, const char* text);
    int send(std::span<const Line> lines);
    size_t deliver(std::span<mmsghdr> messages, int& error);
    int connectAgain();
    const char* stamp();

    // Held only across calls that do not block.
    std::mutex m_mutex;
    int m_socket = -1;
    Clock::time_point m_nextAttempt{};  // only relevant without a socket
    time_t m_second = -1;
    std::array<char, 64> m_stamp{};
    long m_pid = 0;
    uint64_t m_lost = 0;
    std::array<Line, kLinesKept> m_kept;
    size_t m_keptCount = 0;
};

}  // namespace pmtud_linux

#endif
