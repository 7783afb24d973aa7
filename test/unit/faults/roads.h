// SPDX-License-Identifier: MIT
// The two roads of a frame through the daemon, whole, and the daemon to send frames along them.
#ifndef PMTUD_TEST_FAULTS_ROADS_H
#define PMTUD_TEST_FAULTS_ROADS_H

#include <string>

#include "PMTUDApp.h"
#include "VlanConfig.h"
#include "world.h"

namespace faults {

enum class Road { kIpv4, kIpv6 };

/// All that leaves the daemon at DEBUG where nothing fails, from the record to the verdict.
/// IPv4: 78 bytes from 192.0.2.10 to 198.51.100.20, in by VLAN 20, bound for egress 77.  IPv6: 66
/// bytes from 2001:db8:0:10::a to 2001:db8:0:20::14, the same way.
const Lines& untroubled(Road road);

/// A road's beginning, up to this entry and with it; throws std::out_of_range if it is not there.
Lines upTo(const Lines& road, const std::string& entry);

/// A road without the one entry that begins like this; throws std::out_of_range if it is not there.
Lines without(Lines road, const std::string& beginning);

/// What of a road is left at WARNING: all but the lines of the file channel.
Lines atWarning(const Lines& road);

Lines operator+(Lines left, const Lines& right);

/// The daemon's objects, as the process entry makes them.
class Daemon {
 public:
    Daemon() = default;
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon() { getShmWrapperApp()->setHandler(nullptr); }

    /// Has the queue deliver the road's frame.  The world's journal ends with "verdict 7" or, where
    /// an exception leaves the callback, with "throws " and its text.
    static void receive(World& world, Road road);

    PMTUDApp& app() { return m_app; }

 private:
    VlanConfig m_cfg;
    PMTUDApp m_app{&m_cfg, getShmWrapperApp()};
};

}  // namespace faults

#endif
