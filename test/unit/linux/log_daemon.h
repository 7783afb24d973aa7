// SPDX-License-Identifier: MIT
// The system log's socket, read by the test.
#ifndef PMTUD_TEST_LINUX_LOG_DAEMON_H
#define PMTUD_TEST_LINUX_LOG_DAEMON_H

#include <optional>
#include <string>

#include "descriptor.h"

class LogDaemon {
 public:
    /// Listens on /dev/log.
    LogDaemon();
    ~LogDaemon();

    /// The next datagram as it came; waits for it.
    std::string next();

    /// The same, if there is one already.
    std::optional<std::string> poll();

 private:
    pmtud_linux::Descriptor m_socket;
};

/// What follows "<P>Mmm dd hh:mm:ss NAME[PID]: " in the datagram, or the whole datagram
/// if it does not begin like that; P one of the platform's priorities, PID any number.
std::string lineOf(const std::string& datagram);

/// The "<P>" that the datagram begins with.
std::string priorityOf(const std::string& datagram);

#endif
