// SPDX-License-Identifier: MIT
// Two identical routers, one of them with the daemon, and the hosts around them.
//
//   a  02:00:00:00:10:02 ─── bcm0.10            bcm0.20 ─── b  02:00:00:00:20:02
//   10.0.10.2-9, .50-.59         the router     bcm0.30 ─── c  02:00:00:00:30:02
//   2001:db8:10::2-9, ::50-::59
//
// VLAN N of the router is 10.0.N.1/24 and 2001:db8:N::1/64, its MAC 02:00:00:00:N:01. The MTU is
// 1500, that of bcm0.20 is 1400. The hosts are bare interfaces without a protocol stack: frames go
// out as written, and all that come in are compared. Two more VLANs, 80 and 90, carry only the
// fences, each a packet whose answer is awaited.
#ifndef PMTUD_TWIN_TWINS_H
#define PMTUD_TWIN_TWINS_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "machine.h"
#include "observation.h"
#include "packet.h"
#include "segments.h"

namespace twin {

/// Isolates the process and binds it to a processor. All Twins will run this daemon.
void prepareRun(const std::string& daemon);

/// The VLAN of host a is 10, that of b is 20, and so on.
int vlanOf(const std::string& host);

/// 10.0.VLAN.HOST or 2001:db8:VLAN::HOST.
std::string addressOf(bool isIpv4, int vlan, const std::string& host);

/// How a packet is sent.
struct How {
    std::string from = "a";
    packets::Mac to = {};            ///< all zero: the router
    bool tellsNobodyIfMute = false;  ///< a documented exception: with mute hardware, nobody answers
};

struct NewVlan {
    int number;
    std::string host;
    int mtu;
};

/// One router and the hosts around it.
class Site {
 public:
    explicit Site(const std::string& name);

    const Namespace& router() const { return m_router; }
    const Namespace& hosts() const { return m_hosts; }

    /// Adds interfaces bcm0.NUMBER, each with a host of that name.
    void addVlans(const std::vector<NewVlan>& vlans) const;

    /// Adds a port to the bridge, and a host with that name and MAC on it.
    void addPort(const std::string& bridge, const std::string& host, const std::string& mac) const;

    /// To be called before each batch, when all interfaces are there.
    void open();
    void send(const std::string& host, const Bytes& frame, const Offload& offload);

    /// Reads what has arrived.
    void drain();

    /// Sends a packet that is too large, and reads until its answer is there.
    void fence(bool isIpv6);

    std::vector<Observation> take() { return std::exchange(m_seen, {}); }

    Ignored ignored;

 private:
    bool receive();
    void keep(int interface, Bytes frame, const Offload& offload);

    Namespace m_router;
    Namespace m_hosts;
    pmtud_linux::Descriptor m_socket;
    std::map<std::string, int> m_indexes;
    std::map<int, std::string> m_names;
    std::vector<Observation> m_seen;
    uint32_t m_fence = 0;
    uint32_t m_answeredFence = 0;
};

/// What the hosts of the two routers received, compared.
struct Comparison {
    std::vector<std::string> differences;  ///< one line each; none: alike
    size_t sent = 0;
    size_t told = 0;         ///< "too big" messages on the router without the daemon
    size_t forwarded = 0;    ///< other frames there
    uint64_t withdrawn = 0;  ///< the kernel's messages that the rules withdrew
    uint64_t answers = 0;    ///< those of the daemon that left
};

class Twins {
 public:
    /// Prepares both routers.
    void both(const std::function<void(Site&)>& action);

    /// The fences are IPv6 packets, for a router without an IPv4 address.
    void fenceByIpv6() { m_fenceByIpv6 = true; }

    /// Adds to what both are fed. A packet that has no serial number gets one, in IPv4's
    /// identification or IPv6's flow label.
    void send(packets::Ipv4 packet, const How& how = {});
    void send(packets::Ipv6 packet, const How& how = {});
    void send(Merged merged, const How& how = {});
    void sendFrame(const Bytes& frame, uint32_t serial, const How& how = {});
    void meanwhile(const std::string& command);

    /// Feeds both and compares what their hosts received.
    Comparison compare(bool isMute);

 private:
    struct Step {
        std::string host;
        Bytes frame;
        Offload offload{};
        std::string command;
    };

    void sendPacket(const Bytes& packet, const Offload& offload, uint32_t serial, const How& how);
    void feed(bool isMute);
    void count(Comparison& result) const;

    Site m_plain{"plain"};
    Site m_served{"served"};
    std::vector<Step> m_steps;
    std::set<uint32_t> m_toldByKernelOnly;
    uint32_t m_serial = 0;
    bool m_fenceByIpv6 = false;
};

}  // namespace twin

#endif
