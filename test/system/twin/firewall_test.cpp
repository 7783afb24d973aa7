// SPDX-License-Identifier: MIT
// Connection tracking, address translation, and other people's rules.
#include "twin_fixture.h"

namespace twin {

namespace {

using Firewall = TwinTest;

constexpr uint8_t kIcmp = 1;

constexpr char kTracking[] = R"(table inet firewall {
    chain forward {
        type filter hook forward priority 0; policy accept;
        ct state invalid counter
        ct state established,related counter accept
    }
})";

class Fragments : public TwinTest, public testing::WithParamInterface<bool> {
 protected:
    static void set(Twins& twins) {
        if (GetParam()) twins.nft(kTracking);
    }
};

// With tracking, the router puts a datagram together and sends fragments as long as those that
// arrived: each fits, although the datagram does not.
TEST_P(Fragments, DatagramsWhoseFragmentsFitArriveAlike) {
    Twins twins(run);
    set(twins);
    for (const size_t size : {1400, 1300}) {
        for (const size_t whole : {1430, 2900, 8000}) {
            const auto id = static_cast<uint32_t>(size + whole);
            for (const Ipv6& one : fragments(Ipv6{.size = whole}, size, id)) twins.send(one);
            for (const bool dontFragment : {true, false})
                for (const Ipv4& one : fragments(Ipv4{.size = whole,
                                       .dontFragment = dontFragment,
                                       .id = static_cast<uint16_t>(id + dontFragment)},
                                                 size))
                    twins.send(one);
        }
    }
    expectAlike(twins, 0);
}

TEST_P(Fragments, DatagramsWhoseFragmentsDoNotFitAreToldAlike) {
    Twins twins(run);
    set(twins);
    for (const Ipv6& one : fragments(Ipv6{.size = 4000, .flowLabel = 500}, 1500, 77))
        twins.send(one);
    for (const bool dontFragment : {true, false})
        for (const Ipv4& one :
             fragments(Ipv4{.size = 4000, .dontFragment = dontFragment, .id = 600}, 1500))
            twins.send(one);
    // Tracking tells of the whole datagram.
    expectAlike(twins, GetParam() ? 2 : 3);
}

TEST_P(Fragments, FragmentsOfPingsAreTreatedAlike) {
    Twins twins(run);
    set(twins);
    const Ipv6 plain;
    Ipv6 ping{.size = 5000, .nextHeader = 58, .flowLabel = 700};
    ping.payload = icmp6(128, 0, 4960, plain.from, plain.to);
    for (const size_t size : {1400, 1500})
        for (const Ipv6& one : fragments(ping, size, static_cast<uint32_t>(size))) twins.send(one);
    Ipv4 ping4{.size = 4020, .protocol = kIcmp, .id = 800};
    ping4.payload = icmp(8, 0, 4000);
    for (const Ipv4& one : fragments(ping4, 1500)) twins.send(one);
    // RFC 1122 section 3.2.2: nobody is told of a later fragment of an IPv4 datagram.
    expectAlike(twins, GetParam() ? 2 : 4);
}

TEST_P(Fragments, WholePacketsAreTreatedAlike) {
    Twins twins(run);
    set(twins);
    for (const size_t size : {1400, 1401, 1500}) {
        twins.send(Ipv4{.size = size});
        twins.send(Ipv6{.size = size});
        twins.send(Ipv4{.size = size, .protocol = 6});  // not a connection's
        twins.send(Ipv6{.size = size, .nextHeader = 6});
        twins.send(Ipv4{.size = 1400, .from = "10.0.20.2", .to = "10.0.10.2"}, {.from = "b"});
    }
    expectAlike(twins, 8);
}

INSTANTIATE_TEST_SUITE_P(Tracking, Fragments, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& tracking) {
                             return tracking.param ? "On" : "Off";
                         });

TEST_F(Firewall, DestinationTranslationToASmallerVlanIsToldAlike) {
    Twins twins(run);
    twins.nft(R"(table inet nat {
    chain prerouting {
        type nat hook prerouting priority -100;
        ip daddr 10.7.0.1 dnat ip to 10.0.20.2
        ip6 daddr 2001:db8:700::1 dnat ip6 to 2001:db8:20::2
        ip daddr 10.0.30.9 dnat ip to 10.0.20.2
        ip daddr 10.0.20.9 dnat ip to 10.0.30.2
    }
})");
    // Ports of their own: the kernel gives flows that collide random ones.
    for (const size_t size : {1400, 1500}) {
        twins.send(Ipv4{.size = size, .to = "10.7.0.1", .fromPort = 4001}, kKernelOnly);
        twins.send(Ipv6{.size = size, .to = "2001:db8:700::1", .fromPort = 4002}, kKernelOnly);
        twins.send(Ipv4{.size = size, .to = "10.0.30.9", .fromPort = 4003}, kKernelOnly);
        twins.send(Ipv4{.size = size, .to = "10.0.20.9", .fromPort = 4004});
        twins.send(Ipv4{.size = size, .fromPort = 4005});
    }
    expectAlike(twins, 4);
}

// To addresses of the router itself, as ports are forwarded: no process's answer is translated
// back.
TEST_F(Firewall, PacketsTranslatedFromTheRoutersOwnAddressesAreToldOfTheKernels) {
    Twins twins(run);
    twins.nft(R"(table inet nat {
    chain prerouting {
        type nat hook prerouting priority -100;
        ip daddr 10.0.10.1 dnat ip to 10.0.20.2
        ip6 daddr 2001:db8:10::1 dnat ip6 to 2001:db8:20::2
    }
})");
    twins.send(Ipv4{.to = "10.0.10.1", .fromPort = 4001}, kKernelOnly);
    twins.send(Ipv6{.to = "2001:db8:10::1", .fromPort = 4002}, kKernelOnly);
    expectAlike(twins, 2);
}

TEST_F(Firewall, MasqueradedSendersAreToldAlike) {
    Twins twins(run);
    twins.nft(R"(table inet nat {
    chain postrouting {
        type nat hook postrouting priority 100;
        oifname bcm0.20 masquerade
    }
})");
    for (const size_t size : {1400, 1500}) {
        twins.send(Ipv4{.size = size});
        twins.send(Ipv6{.size = size});
        twins.send(Ipv4{.size = size,
                        .from = "10.0.10.3",
                        .protocol = kIcmp,
                        .payload = icmp(8, 0, size - 20)});
    }
    expectAlike(twins, 3);
}

TEST_F(Firewall, SourceTranslationOfEverythingIsTreatedAlike) {
    Twins twins(run);
    twins.nft(R"(table inet nat {
    chain postrouting {
        type nat hook postrouting priority 100;
        ip saddr 10.0.10.0/24 snat ip to 10.0.20.77
    }
    chain prerouting {
        type nat hook prerouting priority -100;
    }
})");
    twins.send(Ipv4{});
    twins.send(Ipv4{.size = 1000});
    twins.send(Ipv4{.size = 1500, .dontFragment = false});
    expectAlike(twins, 1);
}

// The daemon's answer is no answer to a connection that the router knows of (RFC 792 errors are
// related only to what passed): the kernel's message is.
TEST_F(Firewall, AnswersThatAStatefulOutputPolicyDropsAreToldByTheKernel) {
    Twins twins(run);
    twins.nft(R"(table inet firewall {
    chain output {
        type filter hook output priority 0; policy drop;
        oifname "bcm0.4000" accept
        ct state established,related accept
    }
})");
    for (int i = 0; i < 5; ++i) {
        twins.send(Ipv4{});
        twins.send(Ipv6{});
    }
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 10U);
    expectNoDifference(result);
}

// The same policy passes the daemon's answers about flows that the router knows already.
TEST_F(Firewall, AnswersAboutUnknownFlowsAreToldByTheKernelAmongThoseThatPass) {
    Twins twins(run);
    twins.nft(R"(table inet firewall {
    chain output {
        type filter hook output priority 0; policy drop;
        oifname "bcm0.4000" accept
        ct state established,related accept
    }
})");
    for (uint16_t i = 0; i < 3; ++i) {
        twins.send(Ipv4{.size = 1000, .fromPort = 4100});
        twins.send(Ipv4{.fromPort = 4100});
        twins.send(Ipv4{.fromPort = static_cast<uint16_t>(4200 + i)});
    }
    const Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, 6U);
    expectNoDifference(result);
}

TEST_F(Firewall, AnswersThatNobodyMayGiveAreNotGiven) {
    Twins twins(run);
    twins.nft(R"(table inet firewall {
    chain output {
        type filter hook output priority 0; policy accept;
        oifname "bcm0.10" icmp type destination-unreachable drop
        oifname "bcm0.10" icmpv6 type packet-too-big drop
    }
})");
    twins.send(Ipv4{});
    twins.send(Ipv6{});
    twins.send(Ipv4{.from = "10.0.30.2"}, {.from = "c"});
    expectAlike(twins, 1);
}

struct Foreign {
    const char* name;
    const char* hook;
    int priority;
};

// Someone else's chain drops, marks or translates some of the packets.
class ForeignChain : public TwinTest, public testing::WithParamInterface<Foreign> {};

TEST_P(ForeignChain, DroppedAndMarkedPacketsAreTreatedAlike) {
    const Foreign& foreign = GetParam();
    Twins twins(run);
    twins.nft("table inet foreign {\n chain one {\n type filter hook " + std::string(foreign.hook) +
              " priority " + std::to_string(foreign.priority) +
              "; policy accept;\n udp dport 5001 counter drop\n"
              "udp dport 5002 counter meta mark set 7\n"
              "ip protocol icmp meta mark set 9 counter\n}\n}");
    for (const size_t size : {1400, 1500})
        for (const uint16_t port : {uint16_t{5000}, uint16_t{5001}, uint16_t{5002}}) {
            twins.send(Ipv4{.size = size, .toPort = port});
            twins.send(Ipv6{.size = size, .toPort = port});
        }
    // The forward hook comes after the kernel has refused a packet.
    const bool drops = std::string(foreign.hook) == "prerouting";
    expectAlike(twins, drops ? 4 : 6);
}

INSTANTIATE_TEST_SUITE_P(At, ForeignChain,
                         testing::Values(Foreign{"PreroutingFirst", "prerouting", -450},
                                         Foreign{"PreroutingRaw", "prerouting", -300},
                                         Foreign{"PreroutingMangle", "prerouting", -150},
                                         Foreign{"PreroutingFilter", "prerouting", 0},
                                         Foreign{"PreroutingLate", "prerouting", 300},
                                         Foreign{"PreroutingSame", "prerouting", 350},
                                         Foreign{"PreroutingLast", "prerouting", 400},
                                         Foreign{"Forward", "forward", 0},
                                         Foreign{"Output", "output", 0},
                                         Foreign{"PostroutingFirst", "postrouting", -450},
                                         Foreign{"PostroutingLate", "postrouting", 300},
                                         Foreign{"PostroutingLast", "postrouting", 400}),
                         [](const testing::TestParamInfo<Foreign>& foreign) {
                             return std::string(foreign.param.name);
                         });

// The kernel's own message is dropped by someone else before this daemon's hook or after it.
class MessageFilter : public TwinTest, public testing::WithParamInterface<Foreign> {};

TEST_P(MessageFilter, MessagesThatAreDroppedAreDroppedAlike) {
    const Foreign& foreign = GetParam();
    Twins twins(run);
    twins.nft("table inet foreign {\n chain one {\n type filter hook " + std::string(foreign.hook) +
              " priority " + std::to_string(foreign.priority) +
              "; policy accept;\n ip daddr 10.0.10.3 icmp type destination-unreachable drop\n"
              "ip6 daddr 2001:db8:10::3 icmpv6 type packet-too-big drop\n}\n}");
    for (const char* const last : {"2", "3"}) {
        twins.send(Ipv4{.from = std::string("10.0.10.") + last});
        twins.send(Ipv6{.from = std::string("2001:db8:10::") + last});
    }
    expectAlike(twins, 2);
}

INSTANTIATE_TEST_SUITE_P(At, MessageFilter,
                         testing::Values(Foreign{"OutputFirst", "output", -450},
                                         Foreign{"Output", "output", 0},
                                         Foreign{"PostroutingFirst", "postrouting", -450},
                                         Foreign{"PostroutingLate", "postrouting", 300},
                                         Foreign{"PostroutingLast", "postrouting", 500}),
                         [](const testing::TestParamInfo<Foreign>& foreign) {
                             return std::string(foreign.param.name);
                         });

// Whoever flushes the rules leaves the daemon's table, which has an owner.
TEST_F(Firewall, RulesFlushedByAnotherProcessChangeNothing) {
    Twins twins(run);
    twins.send(Ipv4{});
    twins.send(Ipv6{});
    twins.meanwhile("nft flush ruleset");
    twins.send(Ipv4{});
    twins.send(Ipv6{});
    twins.meanwhile("nft flush ruleset && nft add table inet other");
    twins.send(Ipv4{});
    expectAlike(twins, 5);
}

TEST_F(Firewall, ForeignMessagesInTheLogGroupChangeNothing) {
    Twins twins(run);
    twins.nft(R"(table inet foreign {
    chain forward {
        type filter hook forward priority 0; policy accept;
        log prefix "pmtud:20" group 89
        log group 89
    }
    chain output {
        type filter hook output priority 0; policy accept;
        log prefix "pmtud:refused" group 89
    }
})");
    for (const size_t size : {1400, 1500}) {
        twins.send(Ipv4{.size = size});
        twins.send(Ipv6{.size = size});
    }
    expectAlike(twins, 2);
}

TEST_F(Firewall, RedirectionToTheRouterItselfIsTreatedAlike) {
    Twins twins(run);
    twins.nft(R"(table inet nat {
    chain prerouting {
        type nat hook prerouting priority -100;
        udp dport 5003 redirect to :7
    }
})");
    twins.send(Ipv4{.toPort = 5003});
    twins.send(Ipv6{.toPort = 5003});
    twins.send(Ipv4{});
    expectAlike(twins, 1);
}

TEST_F(Firewall, RejectedPacketsAreTreatedAlike) {
    Twins twins(run);
    twins.nft(R"(table inet foreign {
    chain forward {
        type filter hook forward priority 0; policy accept;
        udp dport 5003 reject
        udp dport 5004 reject with icmpx admin-prohibited
    }
})");
    for (const uint16_t port : {uint16_t{5003}, uint16_t{5004}})
        for (const size_t size : {1000, 1500}) {
            twins.send(Ipv4{.size = size, .toPort = port});
            twins.send(Ipv6{.size = size, .toPort = port});
        }
    expectAlike(twins, 4);
}

}  // namespace

}  // namespace twin
