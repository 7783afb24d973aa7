// SPDX-License-Identifier: MIT
// What the service manager learns: that the daemon serves, what it serves, that it is alive.
#ifndef PMTUD_LINUX_SERVICE_H
#define PMTUD_LINUX_SERVICE_H

#include <chrono>

#include "vlan.h"

namespace pmtud_linux {

/// Through sd_notify(3).  Without a service manager nothing is sent, and nobody is woken.
class Service {
 public:
    using Clock = std::chrono::steady_clock;

    /// The rules are in place.  Also asks whether there is a watchdog.
    void ready(const Vlans& vlans);

    /// What is served has changed, perhaps.
    void serves(const Vlans& vlans);

    /// To be called at least once per interval, by the thread that does the work.
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
