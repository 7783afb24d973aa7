// SPDX-License-Identifier: MIT
// The daemon on the scripted platform, as a child process of the test.
#ifndef PMTUD_TEST_DAEMON_PROCESS_H
#define PMTUD_TEST_DAEMON_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

/// How to start it.
struct Start {
    std::string
        script;  ///< whole, with its end; test/support/platform/scripted_script.h has its form
    std::vector<std::string> arguments = {};
    std::map<std::string, std::string> environment = {};
    mode_t umask = 022;
};

/// A start with a script of these statements, in which the clock is fixed at 14:03:07.245.
Start play(const std::string& statements);

/// How it ended: "exit status 1", "signal 15".
struct Ending {
    std::string how;
    std::string log;  ///< what was not read before
    bool operator==(const Ending&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Ending& ending);

/// Killed at the latest when this goes out of scope.
class DaemonProcess {
 public:
    explicit DaemonProcess(const Start& start);
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;
    ~DaemonProcess();

    pid_t pid() const { return m_pid; }

    /// The lines since the last call, up to and including this one: the daemon's log lines and the
    /// platform's record of its calls, in their order. The test fails if the line has not come
    /// after half a minute.
    std::string logUntil(const std::string& line);

    void signal(int number) const;

    /// Waits until it ends by itself, or by the signal that was sent. The test fails if it has not
    /// ended after half a minute.
    Ending ending();

    bool isRunning() const;
    std::string standardOutput() const;

 private:
    /// Appends what comes to m_unread. False: nothing will come any more, or not in time.
    bool read(int64_t deadline);

    pid_t m_pid = -1;
    int m_log = -1;
    int m_standardOutput = -1;
    std::string m_unread;
};

#endif
