// SPDX-License-Identifier: MIT
// Reports to the service manager that the daemon serves, what it serves, and that it is alive.
#include "service.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <string>

#include "ruleset.h"
#include "say.h"

namespace pmtud_linux {

namespace {

std::string statusOf(size_t served) {
    if (served == 0) return "no interface is named bcm0.N with an MTU from 576 to 16383";
    return "serving " + std::to_string(served) + (served == 1 ? " VLAN" : " VLANs");
}

}  // namespace

void Service::ready(const Vlans& vlans) {
    uint64_t microseconds = 0;
    // Three keep-alives per watchdog interval, so that a late one does no harm.
    if (sd_watchdog_enabled(0, &microseconds) > 0)
        m_interval = static_cast<int>(std::clamp<uint64_t>(microseconds / 3000, 1, 60000));
    serves(vlans);
    sd_notify(0, "READY=1");
}

void Service::serves(const Vlans& vlans) {
    const auto served = static_cast<size_t>(std::count_if(
        vlans.begin(), vlans.end(), [](const auto& one) { return isServed(one.second); }));
    if (m_isReady && served == m_served) return;
    const bool isNews = !m_isReady || (served == 0) != (m_served == 0);
    m_isReady = true;
    m_served = served;
    const std::string status = statusOf(served);
    sd_notify(0, ("STATUS=" + status).c_str());
    if (served == 0 && isNews) say(Priority::kWarning, "nothing to serve: " + status);
}

void Service::keepAlive(Clock::time_point now) {
    if (m_interval < 0 || now - m_lastSign < std::chrono::milliseconds(m_interval)) return;
    m_lastSign = now;
    sd_notify(0, "WATCHDOG=1");
}

}  // namespace pmtud_linux
