// SPDX-License-Identifier: MIT
// Fragments, connection tracking, address translation, and other tables' rules.
#include "twin_fixture.h"

namespace twin {
namespace {

constexpr char kTracking[] =
    "nft table inet firewall { chain forward { type filter hook forward priority 0; "
    "ct state invalid counter; ct state established,related counter accept; }; }";

const std::vector<Case> kCases{
    // With tracking, the router reassembles a datagram and then sends fragments of the original
    // length: each fits, although the datagram does not.
    {"DatagramsWhoseFragmentsFitArrive",
     0,
     R"($1
v6 fragments=1400|1300 size=1430|2900|8000
v4 fragments=1400|1300 size=1430|2900|8000 df=0|1)",
     {{"Untracked", 0, {""}}, {"Tracked", 0, {kTracking}}}},
    // With tracking, the sender gets one answer, about the whole datagram.
    {"SendersOfDatagramsWhoseFragmentsDoNotFitAreTold",
     0,
     R"($1
v6 fragments=1500 size=4000 id=500
v4 fragments=1500 size=4000 df=0|1)",
     {{"Untracked", 3, {""}}, {"Tracked", 2, {kTracking}}}},
    // RFC 1122 section 3.2.2: only the first fragment of an IPv4 datagram is answered. A middle
    // fragment's data is not a header, even if it looks like an ICMPv6 error's.
    {"FragmentsOfPings",
     0,
     R"($1
v6 fragments=1400|1500 size=5000 icmp=128 id=700
v4 fragments=1500 size=4020 icmp=8 df=0|1)",
     {{"Untracked", 4, {""}}, {"Tracked", 2, {kTracking}}}},
    {"WholePackets",
     0,
     R"($1
v46 size=1400|1401|1500
v46 size=1400|1401|1500 proto=6
v4 size=1400 host=b to=10.2)",
     {{"Untracked", 8, {""}}, {"Tracked", 8, {kTracking}}}},

    // Each flow has its own port: the kernel gives colliding flows random ones.
    {"DestinationTranslationToASmallerVlan", 4,
     R"(nft table inet nat { chain prerouting { type nat hook prerouting priority -100; ip daddr 10.7.0.1 dnat ip to 10.0.20.2; ip6 daddr 2001:db8:700::1 dnat ip6 to 2001:db8:20::2; ip daddr 10.0.30.9 dnat ip to 10.0.20.2; ip daddr 10.0.20.9 dnat ip to 10.0.30.2; }; }
v4 size=1400|1500 to=10.7.0.1 sport=4001 kernel
v6 size=1400|1500 to=2001:db8:700::1 sport=4002 kernel
v4 size=1400|1500 to=30.9 sport=4003 kernel
v4 size=1400|1500 to=20.9 sport=4004
v4 size=1400|1500 sport=4005)"},
    // The router's own addresses are translated, as for port forwarding. The answer of a process
    // would not be translated back.
    {"SendersToTheRoutersTranslatedAddressesAreToldByTheKernel", 2,
     R"(nft table inet nat { chain prerouting { type nat hook prerouting priority -100; ip daddr 10.0.10.1 dnat ip to 10.0.20.2; ip6 daddr 2001:db8:10::1 dnat ip6 to 2001:db8:20::2; }; }
v46 to=10.1 kernel)"},
    {"MasqueradedSenders", 3,
     R"(nft table inet nat { chain postrouting { type nat hook postrouting priority 100; oifname bcm0.20 masquerade; }; }
v46 size=1400|1500
v4 size=1400|1500 from=10.3 icmp=8)"},
    {"SourceTranslationOfEverything", 1,
     R"(nft table inet nat { chain postrouting { type nat hook postrouting priority 100; ip saddr 10.0.10.0/24 snat ip to 10.0.20.77; }; chain prerouting { type nat hook prerouting priority -100; }; }
v4 size=1000|1500
v4 df=0)"},
    {"RedirectionToTheRouterItself", 1,
     R"(nft table inet nat { chain prerouting { type nat hook prerouting priority -100; udp dport 5003 redirect to :7; }; }
v46 dport=5003
v4)"},

    {"AnswersThatTheOutputChainDropsDoNotArrive", 1,
     R"(nft table inet firewall { chain output { type filter hook output priority 0; oifname "bcm0.10" icmp type destination-unreachable drop; oifname "bcm0.10" icmpv6 type packet-too-big drop; }; }
v46
v4 host=c)"},
    // The forward hook comes after the kernel has refused a packet.
    {"PacketsThatAForeignChainDropsAndMarks",
     0,
     R"(nft table inet foreign { chain one { type filter hook $1; udp dport 5001 counter drop; udp dport 5002 counter meta mark set 7; ip protocol icmp meta mark set 9 counter; }; }
v46 size=1400|1500 dport=5000|5001|5002)",
     {{"PreroutingFirst", 4, {"prerouting priority -450"}},
      {"PreroutingRaw", 4, {"prerouting priority -300"}},
      {"PreroutingMangle", 4, {"prerouting priority -150"}},
      {"PreroutingFilter", 4, {"prerouting priority 0"}},
      {"PreroutingLate", 4, {"prerouting priority 300"}},
      {"PreroutingSame", 4, {"prerouting priority 350"}},
      {"PreroutingLast", 4, {"prerouting priority 400"}},
      {"Forward", 6, {"forward priority 0"}},
      {"Output", 6, {"output priority 0"}},
      {"PostroutingFirst", 6, {"postrouting priority -450"}},
      {"PostroutingLate", 6, {"postrouting priority 300"}},
      {"PostroutingLast", 6, {"postrouting priority 400"}}}},
    // Another table drops the kernel's own message, before the daemon's hook or after it.
    {"MessagesThatAForeignChainDrops",
     0,
     R"(nft table inet foreign { chain one { type filter hook $1; ip daddr 10.0.10.3 icmp type destination-unreachable drop; ip6 daddr 2001:db8:10::3 icmpv6 type packet-too-big drop; }; }
v46 from=10.2|10.3)",
     {{"OutputFirst", 2, {"output priority -450"}},
      {"Output", 2, {"output priority 0"}},
      {"PostroutingFirst", 2, {"postrouting priority -450"}},
      {"PostroutingLate", 2, {"postrouting priority 300"}},
      {"PostroutingLast", 2, {"postrouting priority 500"}}}},
    {"RejectedPackets", 4,
     R"(nft table inet foreign { chain forward { type filter hook forward priority 0; udp dport 5003 reject; udp dport 5004 reject with icmpx admin-prohibited; }; }
v46 size=1000|1500 dport=5003|5004)"},

    // A flush leaves the daemon's table, which has an owner.
    {"RulesFlushedByAnotherProcessChangeNothing", 5,
     R"(v46
meanwhile nft flush ruleset
v46
meanwhile nft flush ruleset && nft add table inet other
v4)"},
    {"ForeignMessagesInTheLogGroupChangeNothing", 2,
     R"(nft table inet foreign { chain forward { type filter hook forward priority 0; log prefix "pmtud:20" group 89; log group 89; }; chain output { type filter hook output priority 0; log prefix "pmtud:refused" group 89; }; }
v46 size=1400|1500)"},
};

INSTANTIATE_TEST_SUITE_P(Firewall, Alike, testing::ValuesIn(expanded(kCases)), nameOf);

constexpr char kStateful[] =
    "nft table inet firewall { chain output { type filter hook output priority 0; policy drop; "
    "oifname \"bcm0.80\" accept; ct state established,related accept; }; }\n";

// For connection tracking, the kernel's message belongs to a known connection, and the daemon's
// answer does not.
TEST(Firewall, KernelTellsTheSendersWhenAStatefulOutputPolicyDropsTheAnswers) {
    expectTold(std::string(kStateful) + "v46 times=5", 10);
}

// The same policy accepts the daemon's answers about flows that the router already knows.
TEST(Firewall, KernelTellsTheSendersOfUnknownFlowsAndTheDaemonThoseOfKnownFlows) {
    std::string lines = kStateful;
    for (const char* const port : {"4200", "4201", "4202"})
        lines += std::string("v4 size=1000|1500 sport=4100\nv4 sport=") + port + "\n";
    expectTold(lines, 6);
}

}  // namespace
}  // namespace twin
