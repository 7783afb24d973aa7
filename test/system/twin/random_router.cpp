// SPDX-License-Identifier: MIT
// Random routers: what the walk configures, and the packets it sends to them.
#include "random_router.h"

#include <algorithm>

#include "play.h"

namespace twin {

namespace {

using Text = const char*;

std::string number(size_t value) { return std::to_string(value); }

}  // namespace

RandomRouter::RandomRouter(uint64_t seed)
    : m_random(seed), m_forge(m_random(), {2, 0, 0, 0, 0x10, 2}, {2, 0, 0, 0, 0x10, 1}) {
    m_mtus.a = oneOf({1500, 1500, 1500, 9000, 1400, 1280, 2000});
    m_mtus.b = oneOf({1400, 1400, 1280, 1499, 576, 577, 1300, 1500, 575, 1000, 1281});
    m_mtus.c = oneIn(2) ? oneOf({1500, 1400, 1280, 9000}) : oneOf({m_mtus.b, 1300, 1350});
    maybe(1, "mtus a=" + std::to_string(m_mtus.a) + " b=" + std::to_string(m_mtus.b) +
                 " c=" + std::to_string(m_mtus.c));
    m_forge.setSmallest(static_cast<size_t>(std::clamp(m_mtus.b + 1, 600, 1499)));
    configure();
    configureFirewall();
}

void RandomRouter::maybe(size_t number, const std::string& line) {
    if (oneIn(number)) m_lines += line + '\n';
}

void RandomRouter::configure() {
    maybe(3,
          "sysctl ipv4/conf/all/rp_filter|ipv4/conf/bcm0.10/rp_filter|ipv4/conf/bcm0.20/rp_filter|"
          "ipv4/conf/bcm0.30/rp_filter " +
              number(below(3)));
    maybe(4, "sh ethtool -K bcm0.10 gro on");
    maybe(8, "sysctl ipv4/conf/bcm0.10/accept_local 1");
    maybe(8, "sysctl ipv4/conf/bcm0.10/accept_source_route 1");
    maybe(10, "sysctl ipv4/ip_forward_use_pmtu 1");
    maybe(12, "sysctl ipv4/ip_forward_update_priority 0");
    const std::string table = " lookup 77\nsh ip route add default via ";
    maybe(4, "sh ip route replace 10.0.20.4/32 dev bcm0.20 mtu " + number(600 + below(900)));
    maybe(4, "sh ip rule add " +
                 std::string(oneOf<Text>({"from 10.0.10.3", "fwmark 7", "iif bcm0.10",
                                          "ipproto udp dport 5003", "to 10.0.20.3",
                                          "tos 0x10 iif bcm0.10", "iif bcm0.10 fwmark 7"})) +
                 table + "10.0.30.2 table 77");
    maybe(4, "sh ip route add 10.8.0.0/24 nexthop via 10.0.20.2 nexthop via 10.0.30.2");
    maybe(4, "sh ip route add 10.9.0.0/24 via 10.0.30.2");
    if (std::min({m_mtus.a, m_mtus.b, m_mtus.c}) < 1280) return;
    maybe(4, "sh ip route replace 2001:db8:20::4/128 dev bcm0.20 mtu " + number(1280 + below(200)));
    maybe(4, "sh ip -6 rule add " +
                 std::string(oneOf<Text>({"from 2001:db8:10::3", "fwmark 7", "iif bcm0.10",
                                          "ipproto udp dport 5003", "to 2001:db8:20::3",
                                          "tos 0x10 iif bcm0.10"})) +
                 table + "2001:db8:30::2 table 77");
    maybe(4,
          "sh ip route add 2001:db8:800::/64 nexthop via 2001:db8:20::2 nexthop via "
          "2001:db8:30::2");
    maybe(4, "sh ip route add 2001:db8:900::/64 via 2001:db8:30::2");
}

void RandomRouter::configureFirewall() {
    maybe(3,
          "nft table inet tracking { chain forward { type filter hook forward priority 0; "
          "ct state invalid counter; ct state established,related accept; }; }");
    if (oneIn(3)) {
        const std::string hook =
            oneOf<Text>({"prerouting", "forward", "output", "postrouting", "prerouting"});
        const std::string what = oneOf<Text>(
            {"udp dport 5001 drop", "meta length > 1450 drop", "udp dport 5003 meta mark set 7",
             "icmp type destination-unreachable meta mark set 3", "ip dscp set 10",
             "iifname \"bcm0.10\" ip6 hoplimit set 50",
             "udp dport 5001 counter log group 89 prefix \"pmtud:20\"",
             "icmp type destination-unreachable ip daddr 10.0.10.3 drop",
             "iifname \"bcm0.10\" ip ttl set 33"});
        m_mayDropAnswers |= what.find("drop") != what.npos;
        const int priority = oneOf({-450, -300, -225, -150, -1, 0, 10, 100, 300, 349, 351, 400});
        maybe(1, "nft table inet foreign { chain one { type filter hook " + hook + " priority " +
                     std::to_string(priority) + "; " + what + "; }; }");
    }
    if (oneIn(8)) {
        m_mayDropAnswers = m_isStrict = true;
        maybe(1,
              "nft table inet strict { chain output { type filter hook output priority 0; policy "
              "drop; oifname \"bcm0.4000\" accept; ct state established,related accept; }; }");
    }
    maybe(10,
          "nft table inet untracked { chain raw { type filter hook prerouting priority -300; "
          "udp dport 5001 notrack; }; }");
    maybe(5,
          "nft table inet nat { chain prerouting { type nat hook prerouting priority -100; "
          "ip daddr 10.7.0.1 dnat ip to 10.0.20.2; "
          "ip6 daddr 2001:db8:700::1 dnat ip6 to 2001:db8:20::2; }; }");
    maybe(5,
          "nft table inet hidden { chain postrouting { type nat hook postrouting priority "
          "100; oifname \"bcm0.20\" masquerade; }; }");
}

void RandomRouter::fill(Twins& twins, size_t packets) {
    for (size_t i = 0; i < packets; ++i) {
        const size_t dice = below(8);
        if (dice < 3)
            addForged(twins);
        else if (dice == 3 && oneIn(4))
            addFragments(twins);
        else if (dice == 4 && oneIn(8))
            addMerged(twins);
        else
            addPlain(twins);
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
    const auto largest = static_cast<size_t>(isFromC ? m_mtus.c : m_mtus.a);
    const auto around = static_cast<size_t>(oneIn(3) ? m_mtus.c : m_mtus.b);
    const size_t size = std::min(
        largest, oneIn(2) ? around - 2 + below(5) : 100 + below(std::min<size_t>(largest, 3000)));
    std::string from = (isFromC ? "30." : "10.") + number(2 + below(4));
    // If the router drops the daemon's answers, the first to a sender that is not reached through
    // the ingress is lost: nobody knows its link-layer address.
    const bool mayBeForeign = !m_isStrict;
    if (mayBeForeign && oneIn(12)) from = isIpv4 ? "10.9.0.1" : "2001:db8:900::1";
    if (mayBeForeign && oneIn(20)) from = "20.2";
    if (mayBeForeign && oneIn(30)) from = "10.1";
    std::string to = (isFromC || !oneIn(4) ? "20." : "30.") + number(2 + below(4));
    if (oneIn(8)) to = isIpv4 ? "10.8.0.1" : "2001:db8:800::1";
    if (oneIn(8)) to = isIpv4 ? "10.7.0.1" : "2001:db8:700::1";
    // Each flow has a port: those that translation makes collide get random ones.
    play(twins, (isIpv4 ? "v4 df=" + number(oneIn(4) ? 0 : 1) : std::string("v6")) +
                    " size=" + number(std::max<size_t>(size, 60)) + " from=" + from + " to=" + to +
                    " tos=" + (oneIn(4) ? "0x10" : "0") + " host=" + (isFromC ? "c" : "a") +
                    " sport=" + number(10000 + m_serial++ % 20000) +
                    " dport=" + number(5000 + below(5)));
}

void RandomRouter::addFragments(Twins& twins) {
    const size_t largest =
        std::min({static_cast<size_t>(m_mtus.a),
                  static_cast<size_t>(m_mtus.b) + (oneIn(2) ? 0 : 50 + below(100))});
    const size_t serial = m_serial++;
    play(twins, (oneIn(2) ? "v4 df=" + number(below(2)) : "v6 id=" + number(serial & 0xfffff)) +
                    " size=" + number(1300 + below(4000)) + " fragments=" + number(largest) +
                    " sport=" + number(10000 + serial % 20000));
}

void RandomRouter::addMerged(Twins& twins) {
    // The link takes a single segment only if it is no longer than its MTU.
    const size_t each = 400 + below(static_cast<size_t>(m_mtus.a) - 460);
    play(twins, oneOf<Text>({"tcp4", "tcp6", "udp4", "udp6"}) + (" each=" + number(each)) +
                    " bytes=" + number(each * (1 + below(6))));
}

}  // namespace twin
