// SPDX-License-Identifier: MIT
// A random walk: random routers, each as two twins, are fed random packets. Their hosts must
// receive the same.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <map>
#include <random>
#include <string>

#include "forge.h"
#include "play.h"

namespace {

constexpr size_t kPacketsOfARouter = 1000;
constexpr size_t kDifferencesShown = 10;

constexpr char kUsage[] = R"(usage: twin_walk --daemon PATH [--seed N] [--packets N]

Feeds random packets to random routers. Prints each difference with the router's configuration and
the command that repeats it alone. The exit status is 1 if there was one.
)";

std::string number(size_t value) { return std::to_string(value); }

/// A router's configuration, and packets for it. The same seed yields the same.
class RandomRouter {
 public:
    explicit RandomRouter(uint64_t seed)
        : m_random(seed), m_forge(m_random(), {2, 0, 0, 0, 0x10, 2}, {2, 0, 0, 0, 0x10, 1}) {
        configure();
        configureFirewall();
    }

    /// What play() prepares it by.
    const std::string& lines() const { return m_lines; }

    /// Whether its rules may drop answers.
    bool mayDropAnswers() const { return m_mayDropAnswers; }

    void fill(twin::Twins& twins, size_t packets);

 private:
    size_t below(size_t bound) { return static_cast<size_t>(m_random() % bound); }
    bool oneIn(size_t number) { return below(number) == 0; }
    size_t oneOf(std::initializer_list<size_t> values) {
        return *(values.begin() + below(values.size()));
    }
    std::string oneOf(std::initializer_list<const char*> values) {
        return *(values.begin() + below(values.size()));
    }
    /// Adds the line to one router in `number`.
    void maybe(size_t number, const std::string& line) {
        if (oneIn(number)) m_lines += line + '\n';
    }

    void configure();
    void configureFirewall();
    void addForged(twin::Twins& twins);
    void addPlain(twin::Twins& twins);
    void addFragments(twin::Twins& twins);
    void addMerged(twin::Twins& twins);

    std::mt19937_64 m_random;
    soak::Forge m_forge;
    // The MTUs of the VLANs of a, b and c.
    size_t m_mtuOfA = 0;
    size_t m_mtuOfB = 0;
    size_t m_mtuOfC = 0;
    bool m_mayDropAnswers = false;
    bool m_isStrict = false;  // the rules drop all of the daemon's answers
    uint32_t m_serial = 40000;
    std::string m_lines;
};

void RandomRouter::configure() {
    m_mtuOfA = oneOf({1500, 1500, 1500, 9000, 1400, 1280, 2000});
    m_mtuOfB = oneOf({1400, 1400, 1280, 1499, 576, 577, 1300, 1500, 575, 1000, 1281});
    m_mtuOfC = oneIn(2) ? oneOf({1500, 1400, 1280, 9000}) : oneOf({m_mtuOfB, 1300, 1350});
    m_forge.setSmallest(std::clamp<size_t>(m_mtuOfB + 1, 600, 1499));
    m_lines = "ip link set dev bcm0.10 mtu " + number(m_mtuOfA) + "\nip link set dev bcm0.20 mtu " +
              number(m_mtuOfB) + "\nip link set dev bcm0.30 mtu " + number(m_mtuOfC) + "\n";
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
                 oneOf({"from 10.0.10.3", "fwmark 7", "iif bcm0.10", "ipproto udp dport 5003",
                        "to 10.0.20.3", "tos 0x10 iif bcm0.10", "iif bcm0.10 fwmark 7"}) +
                 table + "10.0.30.2 table 77");
    maybe(4, "sh ip route add 10.8.0.0/24 nexthop via 10.0.20.2 nexthop via 10.0.30.2");
    maybe(4, "sh ip route add 10.9.0.0/24 via 10.0.30.2");
    if (std::min({m_mtuOfA, m_mtuOfB, m_mtuOfC}) < 1280) return;  // RFC 8200 section 5: no IPv6
    maybe(4, "sh ip route replace 2001:db8:20::4/128 dev bcm0.20 mtu " + number(1280 + below(200)));
    maybe(4, "sh ip -6 rule add " +
                 oneOf({"from 2001:db8:10::3", "fwmark 7", "iif bcm0.10", "ipproto udp dport 5003",
                        "to 2001:db8:20::3", "tos 0x10 iif bcm0.10"}) +
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
            oneOf({"prerouting", "forward", "output", "postrouting", "prerouting"});
        const std::string what = oneOf({"udp dport 5001 drop", "meta length > 1450 drop",
                                        "udp dport 5003 meta mark set 7",
                                        "icmp type destination-unreachable meta mark set 3",
                                        "ip dscp set 10", "iifname \"bcm0.10\" ip6 hoplimit set 50",
                                        "udp dport 5001 counter log group 89 prefix \"pmtud:20\"",
                                        "icmp type destination-unreachable ip daddr 10.0.10.3 drop",
                                        "iifname \"bcm0.10\" ip ttl set 33"});
        m_mayDropAnswers |= what.find("drop") != what.npos;
        const std::string priority = oneOf(
            {"-450", "-300", "-225", "-150", "-1", "0", "10", "100", "300", "349", "351", "400"});
        m_lines += "nft table inet foreign { chain one { type filter hook " + hook + " priority " +
                   priority + "; " + what + "; }; }\n";
    }
    if (oneIn(8)) {
        m_mayDropAnswers = m_isStrict = true;
        m_lines +=
            "nft table inet strict { chain output { type filter hook output priority 0; policy "
            "drop; oifname \"bcm0.80\" accept; ct state established,related accept; }; }\n";
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

void RandomRouter::fill(twin::Twins& twins, size_t packets) {
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

void RandomRouter::addForged(twin::Twins& twins) {
    const soak::Kind& kind = soak::kinds()[m_forge.chooseKind()];
    const packets::Bytes frame = m_forge.make(kind, m_serial++);
    // The link accepts no frame without a payload, and only a few bytes more than its MTU.
    const size_t largest = m_mtuOfA + 14;
    const bool isForeign = kind.outcome == soak::Outcome::kElsewhere;
    if (frame.size() <= 14 || frame.size() > largest || (m_isStrict && isForeign))
        return addPlain(twins);
    twins.sendFrame(frame, 0);
}

void RandomRouter::addPlain(twin::Twins& twins) {
    const bool isIpv4 = oneIn(2);
    const bool isFromC = oneIn(6);
    const size_t largest = isFromC ? m_mtuOfC : m_mtuOfA;
    const size_t around = oneIn(3) ? m_mtuOfC : m_mtuOfB;
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
    // Each flow has its own port: flows that collide after translation get random ones.
    play(twins, (isIpv4 ? "v4 df=" + number(oneIn(4) ? 0 : 1) : std::string("v6")) +
                    " size=" + number(std::max<size_t>(size, 60)) + " from=" + from + " to=" + to +
                    " tos=" + (oneIn(4) ? "0x10" : "0") + " host=" + (isFromC ? "c" : "a") +
                    " sport=" + number(10000 + m_serial++ % 20000) +
                    " dport=" + number(5000 + below(5)));
}

void RandomRouter::addFragments(twin::Twins& twins) {
    const size_t largest = std::min(m_mtuOfA, m_mtuOfB + (oneIn(2) ? 0 : 50 + below(100)));
    const size_t serial = m_serial++;
    play(twins, (oneIn(2) ? "v4 df=" + number(below(2)) : "v6 id=" + number(serial & 0xfffff)) +
                    " size=" + number(1300 + below(4000)) + " fragments=" + number(largest) +
                    " sport=" + number(10000 + serial % 20000));
}

void RandomRouter::addMerged(twin::Twins& twins) {
    // The link accepts a single segment only if it fits the MTU.
    const size_t each = 400 + below(m_mtuOfA - 460);
    play(twins, oneOf({"tcp4", "tcp6", "udp4", "udp6"}) + " each=" + number(each) +
                    " bytes=" + number(each * (1 + below(6))));
}

// Compares one router's twins, adds what they did to the sum, and prints their differences.
void walkOne(const std::string& daemon, uint64_t seed, size_t packets, twin::Comparison& sum) {
    RandomRouter router(seed);
    twin::Comparison result;
    try {
        twin::Twins twins;
        play(twins, router.lines());
        router.fill(twins, packets);
        result = twins.compare(false);
        if (!router.mayDropAnswers() && result.withdrawn != result.answers)
            result.differences.push_back("withdrawn " + std::to_string(result.withdrawn) +
                                         ", answered " + std::to_string(result.answers));
    } catch (const std::exception& error) {
        result.differences.emplace_back(error.what());
    }
    sum.sent += result.sent;
    sum.told += result.told;
    sum.forwarded += result.forwarded;
    sum.answers += result.answers;
    sum.differences.insert(sum.differences.end(), result.differences.begin(),
                           result.differences.end());
    if (result.differences.empty()) return;
    std::cout << "DIFFERENT: twin_walk --seed " << seed << " --packets " << packets << " --daemon "
              << daemon << '\n'
              << router.lines();
    const size_t shown = std::min(kDifferencesShown, result.differences.size());
    for (size_t i = 0; i < shown; ++i) std::cout << "  " << result.differences[i] << '\n';
    std::cout << "  " << result.differences.size() << " lines in all" << std::endl;
}

int walk(const std::string& daemon, uint64_t seed, size_t packets) {
    twin::prepareRun(daemon);
    twin::Comparison sum;
    size_t routers = 0;
    for (size_t done = 0; done < packets; done += kPacketsOfARouter)
        walkOne(daemon, seed + routers++, std::min(kPacketsOfARouter, packets - done), sum);
    std::cout << "seed " << seed << ": " << routers << " routers, " << sum.sent
              << " packets to each twin, " << sum.told << " messages, " << sum.answers
              << " of them the daemon's, " << sum.forwarded << " other frames, "
              << sum.differences.size() << " differences" << std::endl;
    return sum.differences.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::cout << kUsage;
        return EXIT_SUCCESS;
    }
    std::map<std::string, std::string> options{
        {"--daemon", ""}, {"--seed", "1"}, {"--packets", "100000"}};
    bool isUsable = argc % 2 == 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        isUsable = isUsable && options.contains(argv[i]);
        options[argv[i]] = argv[i + 1];
    }
    if (!isUsable || options["--daemon"].empty()) {
        std::cerr << kUsage;
        return 2;
    }
    try {
        return walk(options["--daemon"], std::stoull(options["--seed"]),
                    std::stoull(options["--packets"]));
    } catch (const std::exception& error) {
        std::cerr << "twin_walk: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
