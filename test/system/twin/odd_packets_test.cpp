// SPDX-License-Identifier: MIT
// Options, extension headers, fragments, errors, and addresses that nobody should send from.
#include "forge.h"
#include "twin_fixture.h"

namespace twin {

namespace {

using OddPackets = TwinTest;

constexpr uint8_t kHopByHop = 0;
constexpr uint8_t kRouting = 43;
constexpr uint8_t kFragment = 44;
constexpr uint8_t kDestinationOptions = 60;
constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmpv6 = 58;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kTcp = 6;

TEST_F(OddPackets, Ipv4OptionsAreTreatedAlike) {
    Twins twins(run);
    const std::vector<Bytes> options = {
        {1, 1, 1, 1},                            // no operation
        {7, 11, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0},   // record route
        {7, 3, 4, 1},                            // the same, full
        {7, 11, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // the same, without room
        {68, 4, 5, 0},                           // timestamps, for which there is no room
        {68, 8, 9, 0xf0, 0, 0, 0, 0},            // overflown
        {131, 7, 4, 10, 0, 20, 1, 0},            // loose source route
        {137, 7, 8, 10, 0, 20, 1, 0},            // strict, used up
        {148, 4, 0, 0},                          // router alert
        {7, 40, 4, 0},                           // longer than the header
        {7, 2, 0, 0},                            // shorter than its fields
        {68, 4, 2, 0},                           // with a wrong pointer
        {0xfe, 0, 0, 0},                         // unknown, of no length
        {0, 0, 0, 0},                            // the end
        {134, 4, 0, 0},                          // security labels
    };
    for (const Bytes& one : options)
        for (const size_t size : {1400, 1500}) twins.send(Ipv4{.size = size, .options = one});
    expectAlike(twins, 7);
}

// An answer of the daemon's would quote all of this header and nothing that follows it.
TEST_F(OddPackets, RecordedRouteOfTheLargestHeaderIsTheKernelsToAnswer) {
    Twins twins(run);
    twins.send(Ipv4{.options = {7, 39, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
               kKernelOnly);
    expectAlike(twins, 1);
}

Ipv6 extended(uint8_t first, const Bytes& headers, uint8_t next = kUdp) {
    return {.nextHeader = next, .firstHeader = first, .extensions = headers};
}

TEST_F(OddPackets, Ipv6ExtensionHeadersAreTreatedAlike) {
    Twins twins(run);
    const std::vector<Ipv6> all = {
        extended(kHopByHop, {kUdp, 0, 1, 4, 0, 0, 0, 0}),
        extended(kHopByHop, {kUdp, 0, 5, 2, 0, 0, 1, 0}),     // router alert
        extended(kHopByHop, {kUdp, 0, 0xc2, 4, 0, 1, 0, 0}),  // jumbo payload that lies
        extended(kHopByHop, {kUdp, 0, 0x3e, 4, 0, 0, 0, 0}),  // unknown, skip
        extended(kHopByHop, {kUdp, 0, 0x7e, 4, 0, 0, 0, 0}),  // unknown, discard
        extended(kHopByHop, {kUdp, 0, 0xbe, 4, 0, 0, 0, 0}),  // unknown, tell
        extended(kHopByHop, {kUdp, 255, 1, 4, 0, 0, 0, 0}),   // longer than the packet
        extended(kDestinationOptions, {kUdp, 0, 1, 4, 0, 0, 0, 0}),
        extended(kDestinationOptions, {kUdp, 0, 0xbe, 4, 0, 0, 0, 0}),
        extended(kDestinationOptions, {kDestinationOptions, 255, 1, 4, 0, 0, 0, 0}),
        extended(kRouting, {kUdp, 0, 253, 0, 0, 0, 0, 0}),
        extended(kRouting, {kUdp, 0, 0, 1, 0, 0, 0, 0}),  // type 0
        extended(kHopByHop, {kRouting, 0, 1, 4, 0, 0, 0, 0, kUdp, 0, 253, 1, 0, 0, 0, 0}),
        extended(kFragment, {kUdp, 0, 0, 0, 0, 0, 0, 1}),  // the only fragment
        extended(51, {kUdp, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0}),
        extended(kHopByHop, {kIcmpv6, 0, 1, 4, 0, 0, 0, 0}, kIcmpv6),
        extended(59, {0, 0, 0, 0, 0, 0, 0, 0}),
        extended(200, {kUdp, 0, 0, 0, 0, 0, 0, 0}),
    };
    for (Ipv6 one : all)
        for (const size_t size : {1400, 1500}) {
            one.size = size;
            twins.send(one);
        }
    expectAlike(twins, 13);
}

// First, middle and last fragments of datagrams, and DF on all of them.
TEST_F(OddPackets, Ipv4FragmentsAreTreatedAlike) {
    Twins twins(run);
    for (const bool dontFragment : {true, false})
        for (const uint8_t protocol : {kUdp, kIcmp}) {
            const Bytes ping = icmp(8, 0, 4000);
            Ipv4 whole{.size = 4020, .dontFragment = dontFragment, .protocol = protocol};
            if (protocol == kIcmp) whole.payload = ping;
            for (const Ipv4& fragment : fragments(whole, 1500)) twins.send(fragment);
        }
    // RFC 1122 section 3.2.2: nobody is told of a fragment other than the first.
    expectAlike(twins, 2);
}

// A middle fragment's data is not a header, even if it looks like an error's (finding: middle
// fragment of a ping).
TEST_F(OddPackets, Ipv6FragmentsAreTreatedAlike) {
    Twins twins(run);
    for (const uint8_t protocol : {kUdp, kIcmpv6}) {
        Ipv6 whole{.size = 5000, .nextHeader = protocol};
        if (protocol == kIcmpv6) whole.payload = icmp6(128, 0, 4960, whole.from, whole.to);
        for (const Ipv6& fragment : fragments(whole, 1500, 77)) twins.send(fragment);
    }
    expectAlike(twins, 6);
}

TEST_F(OddPackets, LastHopsAreTreatedAlike) {
    Twins twins(run);
    for (const uint8_t hops : Bytes{0, 1, 2})
        for (const size_t size : {1400, 1500}) {
            twins.send(Ipv4{.size = size, .ttl = hops});
            twins.send(Ipv6{.size = size, .hopLimit = hops});
        }
    expectAlike(twins, 2);
}

TEST_F(OddPackets, GroupAndBroadcastDestinationsAreTreatedAlike) {
    Twins twins(run);
    for (const char* const to : {"224.0.0.1", "239.1.2.3", "255.255.255.255", "10.0.20.255",
                                 "10.0.20.0", "240.0.0.1", "127.0.0.1", "0.0.0.0"})
        twins.send(Ipv4{.to = to});
    for (const char* const to : {"ff02::1", "ff05::2", "ff0e::101", "fe80::2", "::1", "::"})
        twins.send(Ipv6{.to = to});
    expectAlike(twins, 1);
}

TEST_F(OddPackets, DirectedBroadcastsAreTreatedAlike) {
    Twins twins(run);
    twins.sysctl("ipv4/conf/all/bc_forwarding", "1");
    twins.sysctl("ipv4/conf/bcm0.10/bc_forwarding", "1");
    twins.send(Ipv4{.to = "10.0.20.255"});
    twins.send(Ipv4{.size = 1400, .to = "10.0.20.255"});
    // The kernel answers, although RFC 1812 section 4.3.2.7 forbids it.
    expectAlike(twins, 1);
}

TEST_F(OddPackets, LinkLayerGroupsAndOtherStationsAreTreatedAlike) {
    Twins twins(run);
    const std::vector<Mac> all = {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
                                  {0x33, 0x33, 0, 0, 0, 1},
                                  {1, 0, 0x5e, 0, 0, 1},
                                  {2, 0, 0, 0, 0x77, 7}};
    for (const Mac& mac : all) {
        twins.send(Ipv4{}, {.to = mac});
        twins.send(Ipv6{}, {.to = mac});
    }
    expectAlike(twins, 0);
}

// RFC 1122 section 3.2.2, RFC 4443 section 2.4(e): nobody is told of an error.
TEST_F(OddPackets, ErrorsAreTreatedAlike) {
    Twins twins(run);
    for (const uint8_t type : Bytes{3, 4, 5, 11, 12, 0, 8, 13, 18, 42})
        twins.send(Ipv4{.protocol = kIcmp, .payload = icmp(type, 0, 1480)});
    for (const uint8_t type : Bytes{1, 2, 3, 4, 100, 127, 128, 129, 137, 139, 255}) {
        const Ipv6 plain;
        twins.send(
            Ipv6{.nextHeader = kIcmpv6, .payload = icmp6(type, 0, 1460, plain.from, plain.to)});
        Ipv6 later = extended(kDestinationOptions, {kIcmpv6, 0, 1, 4, 0, 0, 0, 0}, kIcmpv6);
        later.payload = icmp6(type, 0, 1452, plain.from, plain.to);
        twins.send(later);
    }
    expectAlike(twins, 14);
}

TEST_F(OddPackets, SourcesThatAreNotHostsAreTreatedAlike) {
    Twins twins(run);
    for (const char* const from :
         {"0.0.0.0", "0.1.2.3", "127.0.0.1", "224.0.0.1", "239.255.255.250", "240.0.0.1",
          "255.255.255.255", "10.0.10.0", "169.254.1.1"})
        twins.send(Ipv4{.from = from});
    // The kernel answers to a broadcast address; a process may not.
    twins.send(Ipv4{.from = "10.0.10.255"}, kKernelOnly);
    twins.send(Ipv4{.from = "10.0.20.255"}, kKernelOnly);
    for (const char* const from : {"::", "::1", "ff02::1", "ff0e::1", "fe80::1", "::ffff:10.0.10.2",
                                   "2001:db8:10::", "2001:db8:10::ffff"})
        twins.send(Ipv6{.from = from});
    expectAlike(twins, 2);
}

// The kernel sends its message twice within the router, once for the router itself.  The daemon's
// answer is refused; neither may make the daemon resign, or tell anyone twice.
TEST_F(OddPackets, BroadcastSourcesDoNotKeepOthersFromBeingTold) {
    Twins twins(run);
    for (int i = 0; i < 3; ++i) {
        twins.send(Ipv4{.from = "10.0.10.255"}, kKernelOnly);
        twins.send(Ipv4{});
        twins.send(Ipv6{});
    }
    expectAlike(twins, 9);
}

TEST_F(OddPackets, PacketsToTheRouterItselfAreTreatedAlike) {
    Twins twins(run);
    for (const char* const to : {"10.0.10.1", "10.0.20.1"})
        twins.send(Ipv4{.to = to, .protocol = kIcmp, .payload = icmp(8, 0, 1480)});
    for (const char* const to : {"2001:db8:10::1", "2001:db8:20::1"})
        twins.send(
            Ipv6{.to = to, .nextHeader = kIcmpv6, .payload = icmp6(128, 0, 1460, Ipv6{}.from, to)});
    twins.send(Ipv4{.to = "10.0.20.1"});
    twins.send(Ipv6{.to = "2001:db8:20::1"});
    expectAlike(twins, 0);
}

TEST_F(OddPackets, ProtocolsAndClassesOfServiceAreTreatedAlike) {
    Twins twins(run);
    for (const uint8_t protocol : Bytes{kTcp, 33, 47, 50, 132, 136, 255}) {
        twins.send(Ipv4{.tos = 0xb8, .protocol = protocol});
        twins.send(Ipv6{.trafficClass = 0xb8, .nextHeader = protocol});
    }
    expectAlike(twins, 14);
}

// Five of each kind of the soak's packets: malformed ones among them.
TEST_F(OddPackets, EveryKindOfTheSoaksPacketsIsTreatedAlike) {
    Twins twins(run);
    soak::Forge forge(1, {2, 0, 0, 0, 0x10, 2}, {2, 0, 0, 0, 0x10, 1});
    uint32_t serial = 1;
    for (const soak::Kind& kind : soak::kinds())
        for (int i = 0; i < 5; ++i) {
            soak::Frame frame;
            forge.make(kind, serial++, frame);
            if (frame.size == 14) continue;
            // From 10.0.0.255 or the like.
            const bool mayBroadcast = kind.family == 4 && frame.bytes[29] == 255;
            const bool isLongHeader = kind.family == 4 && (frame.bytes[14] & 0x0f) > 13;
            twins.sendFrame(
                {frame.bytes.begin(), frame.bytes.begin() + static_cast<ptrdiff_t>(frame.size)},
                serial - 1, {.tellsNobodyIfMute = mayBroadcast || isLongHeader});
        }
    expectAlike(twins, 105);
}

}  // namespace

}  // namespace twin
