// SPDX-License-Identifier: MIT
// Reports to the service manager that the daemon serves, what it serves, and that it is alive.
#ifndef PMTUD_LINUX_SERVICE_H
#define PMTUD_LINUX_SERVICE_H

#include <chrono>

#include "vlan.h"

namespace pmtud_linux {

/// Uses sd_notify(3). Without a service manager, nothing is sent, and no thread wakes up for it.
class Service {
 public:
    using Clock = std::chrono::steady_clock;

    /// Reports that the rules are in place. Also finds out whether there is a watchdog.
    void ready(const Vlans& vlans);

    /// Reports what is served, if that has changed.
    void serves(const Vlans& vlans);

    /// Call it at least once per interval, on the thread that does the work.
    void keepAlive(Clock::time_point now);

    /// In milliseconds; -1 without a watchdog.
    int interval() const { return m_interval; }

 private:
    size_t m_served = 0;
    bool m_isReady = false;
    int m_interval = -1;
    Clock::time_point m_lastSign{};
};

}  // namespace pmtud_linux

#endif
