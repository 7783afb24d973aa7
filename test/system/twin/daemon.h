// SPDX-License-Identifier: MIT
// The daemon as a child process on one of the routers.
#ifndef PMTUD_TWIN_DAEMON_H
#define PMTUD_TWIN_DAEMON_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "descriptor.h"
#include "machine.h"

namespace twin {

/// The system log's socket, of which only what the daemon's platform writes is kept.
class SystemLog {
 public:
    SystemLog();
    ~SystemLog();
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    /// The platform's lines since the last call.
    std::vector<std::string> lines();

 private:
    pmtud_linux::Descriptor m_socket;
};

/// Runs from its construction, at the end of which its rules are installed, to its destruction.
class Daemon {
 public:
    Daemon(const std::string& program, const Namespace& router, int processor);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool isRunning() const;

 private:
    pid_t m_pid = -1;
};

}  // namespace twin

#endif
