// SPDX-License-Identifier: MIT
// Random routers: what the walk configures, and the packets it sends to them.
#include "random_router.h"

#include <algorithm>
#include <array>

#include "bytes.h"

namespace twin {

namespace {

constexpr std::array kIngressMtus{1500, 1500, 1500, 9000, 1400, 1280, 2000};
constexpr std::array kEgressMtus{1400, 1400, 1280, 1499, 576, 577, 1300, 1500, 575, 1000, 1281};
constexpr std::array kPriorities{-450, -300, -225, -150, -1, 0, 10, 100, 300, 349, 351, 400};

std::string address(bool isIpv4, int vlan, size_t host) {
    return addressOf(isIpv4, vlan, std::to_string(host));
}

}  // namespace

RandomRouter::RandomRouter(uint64_t seed)
    : m_random(seed), m_forge(m_random(), {2, 0, 0, 0, 0x10, 2}, {2, 0, 0, 0, 0x10, 1}) {
    m_mtus.a = oneOf(kIngressMtus);
    m_mtus.b = oneOf(kEgressMtus);
    m_mtus.c = oneOf(oneIn(2) ? std::vector<int>{1500, 1400, 1280, 9000}
                              : std::vector<int>{m_mtus.b, 1300, 1350});
    m_choices.push_back("MTUs " + std::to_string(m_mtus.a) + ", " + std::to_string(m_mtus.b) +
                        ", " + std::to_string(m_mtus.c));
    m_forge.setSmallest(static_cast<size_t>(std::clamp(m_mtus.b + 1, 600, 1499)));
}

void RandomRouter::sysctl(Twins& twins, const std::string& name, const std::string& value) {
    m_choices.push_back("sysctl " + name + " = " + value);
    twins.sysctl(name, value);
}

void RandomRouter::rules(Twins& twins, const std::string& text) {
    m_choices.push_back("nft " + text);
    twins.nft(text);
}

void RandomRouter::command(Twins& twins, const std::string& line) {
    m_choices.push_back(line);
    twins.shell(line);
}

void RandomRouter::configure(Twins& twins) {
    if (oneIn(3)) {
        const std::string filter = std::to_string(below(3));
        for (const char* const scope : {"all", "bcm0.10", "bcm0.20", "bcm0.30"})
            sysctl(twins, std::string("ipv4/conf/") + scope + "/rp_filter", filter);
    }
    if (oneIn(4)) command(twins, "ethtool -K bcm0.10 gro on");
    if (oneIn(8)) sysctl(twins, "ipv4/conf/bcm0.10/accept_local", "1");
    if (oneIn(8)) sysctl(twins, "ipv4/conf/bcm0.10/accept_source_route", "1");
    if (oneIn(10)) sysctl(twins, "ipv4/ip_forward_use_pmtu", "1");
    if (oneIn(12)) sysctl(twins, "ipv4/ip_forward_update_priority", "0");
    configureRouting(twins);
    configureFirewall(twins);
    configureTranslation(twins);
}

void RandomRouter::configureRouting(Twins& twins) {
    const bool hasIpv6 = std::min({m_mtus.a, m_mtus.b, m_mtus.c}) >= 1280;
    if (oneIn(4))
        command(twins, "ip route replace 10.0.20.4/32 dev bcm0.20 mtu " +
                           std::to_string(600 + below(900)));
    if (hasIpv6 && oneIn(4))
        command(twins, "ip route replace 2001:db8:20::4/128 dev bcm0.20 mtu " +
                           std::to_string(1280 + below(200)));
    if (oneIn(4)) {
        const std::string words = oneOf(std::vector<std::string>{
            "from 10.0.10.3", "fwmark 7", "iif bcm0.10", "ipproto udp dport 5003", "to 10.0.20.3",
            "tos 0x10 iif bcm0.10", "iif bcm0.10 fwmark 7"});
        command(twins, "ip rule add " + words + " lookup 77");
        command(twins, "ip route add default via 10.0.30.2 table 77");
    }
    if (hasIpv6 && oneIn(4)) {
        const std::string words = oneOf(std::vector<std::string>{
            "from 2001:db8:10::3", "fwmark 7", "iif bcm0.10", "ipproto udp dport 5003",
            "to 2001:db8:20::3", "tos 0x10 iif bcm0.10"});
        command(twins, "ip -6 rule add " + words + " lookup 77");
        command(twins, "ip -6 route add default via 2001:db8:30::2 table 77");
    }
    if (oneIn(4))
        command(twins, "ip route add 10.8.0.0/24 nexthop via 10.0.20.2 nexthop via 10.0.30.2");
    if (hasIpv6 && oneIn(4))
        command(twins,
                "ip route add 2001:db8:800::/64 nexthop via 2001:db8:20::2 nexthop via "
                "2001:db8:30::2");
    if (oneIn(4)) command(twins, "ip route add 10.9.0.0/24 via 10.0.30.2");
    if (hasIpv6 && oneIn(4)) command(twins, "ip route add 2001:db8:900::/64 via 2001:db8:30::2");
}

void RandomRouter::configureFirewall(Twins& twins) {
    if (oneIn(3))
        rules(twins,
              "table inet tracking { chain forward { type filter hook forward priority 0; "
              "ct state invalid counter; ct state established,related accept; }; }");
    if (oneIn(3)) {
        const std::string hook = oneOf(std::vector<std::string>{"prerouting", "forward", "output",
                                                                "postrouting", "prerouting"});
        const std::string what = oneOf(std::vector<std::string>{
            "udp dport 5001 drop", "meta length > 1450 drop", "udp dport 5003 meta mark set 7",
            "icmp type destination-unreachable meta mark set 3", "ip dscp set 10",
            "iifname \"bcm0.10\" ip6 hoplimit set 50",
            "udp dport 5001 counter log group 89 prefix \"pmtud:20\"",
            "icmp type destination-unreachable ip daddr 10.0.10.3 drop",
            "iifname \"bcm0.10\" ip ttl set 33"});
        m_mayDropAnswers |= what.find("drop") != what.npos;
        rules(twins, "table inet foreign { chain one { type filter hook " + hook + " priority " +
                         std::to_string(oneOf(kPriorities)) + "; " + what + "; }; }");
    }
    if (oneIn(8)) {
        m_mayDropAnswers = m_isStrict = true;
        rules(twins,
              "table inet strict { chain output { type filter hook output priority 0; policy "
              "drop; oifname \"bcm0.4000\" accept; ct state established,related accept; }; }");
    }
    if (oneIn(10))
        rules(twins,
              "table inet untracked { chain raw { type filter hook prerouting priority -300; "
              "udp dport 5001 notrack; }; }");
}

void RandomRouter::configureTranslation(Twins& twins) {
    if (oneIn(5))
        rules(twins,
              "table inet nat { chain prerouting { type nat hook prerouting priority -100; "
              "ip daddr 10.7.0.1 dnat ip to 10.0.20.2; "
              "ip6 daddr 2001:db8:700::1 dnat ip6 to 2001:db8:20::2; }; }");
    if (oneIn(5))
        rules(twins,
              "table inet hidden { chain postrouting { type nat hook postrouting priority "
              "100; oifname \"bcm0.20\" masquerade; }; }");
}

void RandomRouter::fill(Twins& twins, size_t packets) {
    for (size_t i = 0; i < packets; ++i) {
        switch (below(8)) {
            case 0:
            case 1:
            case 2:
                addForged(twins);
                break;
            case 3:
                if (oneIn(4))
                    addFragments(twins);
                else
                    addPlain(twins);
                break;
            case 4:
                if (oneIn(8))
                    addMerged(twins);
                else
                    addPlain(twins);
                break;
            default:
                addPlain(twins);
                break;
        }
    }
}

void RandomRouter::addForged(Twins& twins) {
    const soak::Kind& kind = soak::kinds()[m_forge.chooseKind()];
    const Bytes frame = m_forge.make(kind, m_serial++);
    // The link takes no frame without a payload, and few bytes more than its MTU.
    const size_t largest = static_cast<size_t>(m_mtus.a) + 14;
    const bool isForeign = kind.outcome == soak::Outcome::kElsewhere;
    if (frame.size() <= 14 || frame.size() > largest || (m_isStrict && isForeign))
        return addPlain(twins);
    twins.sendFrame(frame, 0);
}

void RandomRouter::addPlain(Twins& twins) {
    const bool isIpv4 = oneIn(2);
    const bool isFromC = oneIn(6);
    const int from = isFromC ? 30 : 10;
    const auto largest = static_cast<size_t>(isFromC ? m_mtus.c : m_mtus.a);
    const auto around = static_cast<size_t>(oneIn(3) ? m_mtus.c : m_mtus.b);
    const size_t size = std::min(
        largest, oneIn(2) ? around - 2 + below(5) : 100 + below(std::min<size_t>(largest, 3000)));
    const uint8_t service = oneIn(4) ? 0x10 : 0;
    const auto port = static_cast<uint16_t>(5000 + below(5));
    // Each flow has a port: those that translation makes collide get random ones.
    const auto fromPort = static_cast<uint16_t>(10000 + (m_serial++ % 20000));
    const How how{.from = isFromC ? "c" : "a"};
    std::string source = address(isIpv4, from, 2 + below(4));
    // If the router drops the daemon's answers, the first to a sender that is not reached through
    // the ingress is lost: nobody knows its link-layer address.
    const bool mayBeForeign = !m_isStrict;
    if (mayBeForeign && oneIn(12)) source = isIpv4 ? "10.9.0.1" : "2001:db8:900::1";
    if (mayBeForeign && oneIn(20)) source = address(isIpv4, 20, 2);
    if (mayBeForeign && oneIn(30)) source = address(isIpv4, 10, 1);
    std::string to = address(isIpv4, isFromC || !oneIn(4) ? 20 : 30, 2 + below(4));
    if (oneIn(8)) to = isIpv4 ? "10.8.0.1" : "2001:db8:800::1";
    if (oneIn(8)) to = isIpv4 ? "10.7.0.1" : "2001:db8:700::1";
    if (isIpv4)
        twins.send(Ipv4{.size = std::max<size_t>(size, 60),
                        .from = source,
                        .to = to,
                        .dontFragment = !oneIn(4),
                        .tos = service,
                        .fromPort = fromPort,
                        .toPort = port},
                   how);
    else
        twins.send(Ipv6{.size = std::max<size_t>(size, 60),
                        .from = source,
                        .to = to,
                        .trafficClass = service,
                        .fromPort = fromPort,
                        .toPort = port},
                   how);
}

void RandomRouter::addFragments(Twins& twins) {
    const size_t whole = 1300 + below(4000);
    const size_t size =
        std::min({static_cast<size_t>(m_mtus.a),
                  static_cast<size_t>(m_mtus.b) + (oneIn(2) ? 0 : 50 + below(100))});
    const uint32_t serial = m_serial++;
    if (oneIn(2)) {
        const Ipv4 datagram{.size = whole,
                            .dontFragment = oneIn(2),
                            .fromPort = static_cast<uint16_t>(10000 + serial % 20000),
                            .id = static_cast<uint16_t>(serial)};
        for (const Ipv4& one : fragments(datagram, size)) twins.send(one);
    } else {
        const Ipv6 datagram{.size = whole,
                            .fromPort = static_cast<uint16_t>(10000 + serial % 20000),
                            .flowLabel = serial & 0xfffff};
        for (const Ipv6& one : fragments(datagram, size, serial)) twins.send(one);
    }
}

void RandomRouter::addMerged(Twins& twins) {
    const bool isIpv4 = oneIn(2);
    // The link takes a single segment only if it is no longer than its MTU.
    const size_t each = 400 + below(static_cast<size_t>(m_mtus.a) - 460);
    twins.send(Merged{.from = address(isIpv4, 10, 2),
                      .to = address(isIpv4, 20, 2),
                      .bytes = each * (1 + below(6)),
                      .each = each,
                      .isTcp = oneIn(2)});
}

}  // namespace twin
