// SPDX-License-Identifier: MIT
// Options, extension headers, errors, and addresses that nobody should send from.
#include "forge.h"
#include "twin_fixture.h"

namespace twin {
namespace {

const std::vector<Case> kCases{
    // No operation; record route: with room, without any, and full; timestamps: full, and
    // overflowed; a loose source route, and a strict one that is used up; router alert; options
    // that are longer than the header, shorter than their fields, have a wrong pointer, or are
    // unknown and have no length; end of options; security labels.
    {"Ipv4Options", 7,
     R"(v4 size=1400|1500 options=1*4|7.11.4.0*9|7.3.4.1|7.11.12.0*9
v4 size=1400|1500 options=68.4.5.0|68.8.9.240.0*4|131.7.4.10.0.20.1.0|137.7.8.10.0.20.1.0
v4 size=1400|1500 options=148.4.0*2|7.40.4.0|7.2.0*2|68.4.2.0|254.0*3|0*4|134.4.0*2)"},
    // An answer of the daemon's would quote all of this header and nothing that follows it.
    {"RecordedRouteInTheLargestHeaderIsAnsweredByTheKernel", 1, "v4 options=7.39.4.0*37 kernel"},
    // Hop-by-hop: padding; router alert; a jumbo payload that lies; unknown options that ask the
    // router to skip, discard or report them; longer than the packet. Destination options: padding,
    // unknown, endless. Routing: of type 253 and 0. Two headers. The only fragment. Authentication.
    // ICMPv6 after options. No next header. An unknown one.
    {"Ipv6ExtensionHeaders", 13,
     R"(v6 size=1400|1500 headers=0:17.0.1.4.0*4|0:17.0.5.2.0*2.1.0|0:17.0.194.4.0.1.0*2
v6 size=1400|1500 headers=0:17.0.62.4.0*4|0:17.0.126.4.0*4|0:17.0.190.4.0*4|0:17.255.1.4.0*4
v6 size=1400|1500 headers=60:17.0.1.4.0*4|60:17.0.190.4.0*4|60:60.255.1.4.0*4
v6 size=1400|1500 headers=43:17.0.253.0*5|43:17.0*2.1.0*4|0:43.0.1.4.0*4.17.0.253.1.0*4
v6 size=1400|1500 headers=44:17.0*6.1|51:17.1.0*5.1.0*3.1.0*4
v6 size=1400|1500 headers=0:58.0.1.4.0*4 proto=58
v6 size=1400|1500 headers=59:0*8|200:17.0*7)"},
    {"LastHops", 2, "v46 size=1400|1500 ttl=0|1|2"},
    {"GroupAndBroadcastDestinations", 1,
     R"(v4 to=224.0.0.1|239.1.2.3|255.255.255.255|20.255|20.0|240.0.0.1|127.0.0.1|0.0.0.0
v6 to=ff02::1|ff05::2|ff0e::101|fe80::2|::1|::)"},
    // The kernel answers, although RFC 1812 section 4.3.2.7 forbids it.
    {"DirectedBroadcasts", 1,
     R"(sysctl ipv4/conf/all/bc_forwarding|ipv4/conf/bcm0.10/bc_forwarding 1
v4 size=1400|1500 to=20.255)"},
    {"LinkLayerGroupsAndOtherStations", 0, "v46 mac=255*6|51*2.0*3.1|1.0.94.0*2.1|2.0*3.119.7"},
    // RFC 1122 section 3.2.2, RFC 4443 section 2.4(e): errors are not answered.
    {"Errors", 14,
     R"(v4 icmp=3|4|5|11|12|0|8|13|18|42
v6 icmp=1|2|3|4|100|127|128|129|137|139|255
v6 icmp=1|2|3|4|100|127|128|129|137|139|255 headers=60:58.0.1.4.0*4)"},
    // The kernel answers to a broadcast address; a process may not.
    {"SourcesThatAreNotHosts", 2,
     R"(v4 from=0.0.0.0|0.1.2.3|127.0.0.1|224.0.0.1|239.255.255.250|240.0.0.1|255.255.255.255|10.0|169.254.1.1
v4 from=10.255|20.255 kernel
v6 from=::|::1|ff02::1|ff0e::1|fe80::1|::ffff:10.0.10.2|2001:db8:10::|10.ffff)"},
    // The kernel sends its message twice within the router, once for the router itself, and the
    // daemon's answer is refused. Neither may make the daemon give up, or tell anyone twice.
    {"BroadcastSourcesDoNotKeepOthersFromBeingTold", 9,
     R"(v4 from=10.255 kernel
v46
v4 from=10.255 kernel
v46
v4 from=10.255 kernel
v46)"},
    {"PacketsToTheRouterItself", 0,
     "v4 to=10.1|20.1 icmp=8\nv6 to=10.1|20.1 icmp=128\nv46 to=20.1"},
    {"ProtocolsAndClassesOfService", 14, "v46 tos=0xb8 proto=6|33|47|50|132|136|255"},
};

INSTANTIATE_TEST_SUITE_P(OddPackets, Alike, testing::ValuesIn(expanded(kCases)), nameOf);

// Five packets of each kind that the soak sends, including malformed ones.
TEST(OddPackets, EveryKindOfPacketOfTheSoakIsTreatedAlike) {
    Twins twins;
    soak::Forge forge(1, {2, 0, 0, 0, 0x10, 2}, {2, 0, 0, 0, 0x10, 1});
    uint32_t serial = 1;
    for (const soak::Kind& kind : soak::kinds())
        for (int i = 0; i < 5; ++i) {
            const Bytes frame = forge.make(kind, serial++);
            if (frame.size() == 14) continue;
            // From 10.0.0.255 or the like.
            const bool mayBroadcast = kind.family == 4 && frame.size() > 29 && frame[29] == 255;
            const bool isLongHeader = kind.family == 4 && (frame[14] & 0x0f) > 13;
            twins.sendFrame(frame, serial - 1, {.tellsNobodyIfMute = mayBroadcast || isLongHeader});
        }
    // Five each of 21 kinds, and one whose source is the broadcast address of VLAN 20.
    expectAlike(twins, 106);
}

}  // namespace
}  // namespace twin
