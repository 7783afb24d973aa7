// SPDX-License-Identifier: MIT
// A socket such as the system log's, which the test reads.
#ifndef PMTUD_TEST_LINUX_LOG_DAEMON_H
#define PMTUD_TEST_LINUX_LOG_DAEMON_H

#include <optional>
#include <string>

#include "descriptor.h"

/// Listens at the path as long as it exists.
class DatagramSocket {
 public:
    explicit DatagramSocket(const char* path);
    DatagramSocket(const DatagramSocket&) = delete;
    DatagramSocket& operator=(const DatagramSocket&) = delete;
    ~DatagramSocket();

    /// The next datagram, unchanged; waits for it.
    std::string next();

    /// The same, if there is one already.
    std::optional<std::string> poll();

 private:
    const char* m_path;
    pmtud_linux::Descriptor m_socket;
};

struct LogDaemon : DatagramSocket {
    LogDaemon() : DatagramSocket("/dev/log") {}
};

/// What follows "<P>Mmm dd hh:mm:ss NAME[PID]: " in the datagram, or the whole datagram if it does
/// not begin like that. P must be one of the platform's priorities, PID may be any number.
std::string lineOf(const std::string& datagram);

/// The "<P>" that the datagram begins with.
std::string priorityOf(const std::string& datagram);

#endif
