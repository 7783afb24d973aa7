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

/// The script with these statements in which the clock stands at 14:03:07.245.
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

    /// What came since the last call, up to this line and with it: the daemon's log lines and the
    /// platform's record of its calls, in the order in which they were made.  A failure of the
    /// test if the line has not come after half a minute.
    std::string logUntil(const std::string& line);

    void signal(int number) const;

    /// Waits until it ends by itself, or by the signal that was sent.  A failure of the test if
    /// it has not after half a minute.
    Ending ending();

    bool isRunning() const;
    std::string standardOutput() const;

 private:
    /// Appends what comes to m_unread.  False: nothing will come any more, or not in time.
    bool read(int64_t deadline);

    pid_t m_pid = -1;
    int m_log = -1;
    int m_standardOutput = -1;
    std::string m_unread;
};

#endif
